#include "support/lockcrypto.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <pthread.h>

#include "tests/support/test_platform.h"
#include "tests/support/watched_memory.h"

namespace corvane {
namespace {

using plist::Data;
using plist::Ref;
using Texts = std::vector<std::string>;
using namespace std::string_literals;

constexpr char private_label[] = "RSA PRIVATE KEY";

Ref<Data> data_of(std::string_view bytes) { return Data::create(bytes); }
std::string bytes(const Ref<Data>& data) { return data ? std::string(data->bytes()) : "null"; }

struct Pair {
  explicit Pair(uint32_t bits) { EXPECT_EQ(lockcrypto_create_key_pair(bits, public_pem, private_pem), 0) << bits; }
  Ref<Data> public_pem, private_pem;
};

/// Beside the openssl command, which works in the test's folder.
class Lockcrypto : public ::testing::Test {
 protected:
  ~Lockcrypto() override { EXPECT_EQ(ERR_peek_error(), 0U); }

  // What the command prints, errors too.
  std::string openssl(const std::string& arguments) {
    const std::string command = "cd " + folder_ + " && openssl " + arguments + " >out 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << arguments << "\n" << testing::read_file(folder_ + "out");
    return testing::read_file(folder_ + "out");
  }
  void write(const std::string& name, const Ref<Data>& data) { testing::write_file(folder_ + name, bytes(data)); }
  Ref<Data> read(const std::string& name) { return data_of(testing::read_file(folder_ + name)); }

  testing::TestPlatform& platform_ = testing::TestPlatform::fresh();
  const std::string folder_ = platform_.root() + "/var/";
};

TEST_F(Lockcrypto, PemTextIsWhatItMustBe) {
  const std::string line(64, 'A');
  const std::pair<size_t, std::string> bodies[] = {
      {0, ""}, {1, "\nAA=="}, {48, "\n" + line}, {49, "\n" + line + "\nAA=="}};
  for (const auto& [size, body] : bodies) {
    EXPECT_EQ(bytes(lockcrypto_create_pem(*data_of(std::string(size, '\0')), "X")),
              "-----BEGIN X-----" + body + "\n-----END X-----\n");
  }
  EXPECT_TRUE(lockcrypto_create_pem(*data_of("a"), std::string(62, 'L').c_str()));
  EXPECT_FALSE(lockcrypto_create_pem(*data_of("a"), std::string(63, 'L').c_str()));
  EXPECT_FALSE(lockcrypto_decode_pem(data_of("a").get(), std::string(63, 'L').c_str()));

  const std::string header = "-----BEGIN X-----\n", footer = "\n-----END X-----\n", nul(1, '\0');
  const std::pair<std::string, std::string> texts[] = {
      {"note\n" + header + "QU\r\nJD\n QUI=" + footer + header + "QUJD" + footer + nul, "ABCAB"},
      {header + footer, "null"},
      {header + footer.substr(1), "null"},
      {header + "QUJD" + nul + footer, "null"}};
  for (const auto& [pem, der] : texts) EXPECT_EQ(bytes(lockcrypto_decode_pem(data_of(pem).get(), "X")), der);
  EXPECT_FALSE(lockcrypto_decode_pem(nullptr, "X"));
}

TEST_F(Lockcrypto, KeysAndSignaturesAreThoseOfOpenssl) {
  const Ref<Data> text = data_of("to be signed");
  write("data", text);
  for (const uint32_t bits : {512U, 1000U, 2048U}) {
    const Pair pair(bits);
    write("key", pair.private_pem);
    openssl("rsa -check -noout -in key");
    openssl("rsa -in key -RSAPublicKey_out -out public");
    openssl("dgst -sha1 -sign key -out signature data");
    EXPECT_EQ(bytes(pair.public_pem), bytes(read("public")));
    const auto private_key = lockcrypto_private_key_from_pem_data(pair.private_pem.get());
    const auto public_key = lockcrypto_public_key_from_pem_data(pair.public_pem.get());
    std::string der = bytes(lockcrypto_decode_pem(pair.private_pem.get(), private_label));
    der.at(6) = 1;  // the version for more primes than two
    EXPECT_FALSE(platform_.vault().create_rsa_private_key(der));
    const Ref<Data> signature = lockcrypto_sign(*private_key, *text);
    ASSERT_EQ(bytes(signature), bytes(read("signature")));
    EXPECT_EQ(lockcrypto_verify(*public_key, *signature, *text), 0);
    EXPECT_FALSE(lockcrypto_sign(*public_key, *text));
  }
  Ref<Data> untouched = text;
  for (const uint32_t bits : {0U, 511U, 16385U, 0xffffffffU})
    EXPECT_EQ(lockcrypto_create_key_pair(bits, untouched, untouched), -1);
  EXPECT_EQ(untouched.get(), text.get());

  char hex[41];
  EXPECT_STREQ(lockcrypto_sha1_hex(*data_of(""), hex), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

struct Probe final : VaultIdentity {
  std::unique_ptr<VaultKey> copy_private_key() const override {
    ++private_keys_copied;
    return lockcrypto_private_key_from_pem_data(private_pem.get());
  }
  std::unique_ptr<VaultCertificate> copy_certificate() const override {
    return lockcrypto_certificate_from_pem_data(certificate_pem.get());
  }
  Ref<Data> private_pem, certificate_pem;
  mutable int private_keys_copied = 0;
};

TEST_F(Lockcrypto, IdentityGoesInAndOutWhole) {
  openssl("genrsa -traditional -out key 4096");
  openssl("rsa -in key -RSAPublicKey_out -out public");
  openssl("req -x509 -key key -subj /CN=x -out certificate");
  openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ec -subj /CN=x -out curve");
  const Ref<Data> key = read("key"), own = read("certificate"), curve = read("curve");
  const auto is_identity = [](const Ref<Data>& certificate, const Ref<Data>& private_pem) {
    return lockcrypto_identity_from_pem_data(certificate.get(), private_pem.get()) != nullptr;
  };
  const auto identity = lockcrypto_identity_from_pem_data(own.get(), key.get());
  ASSERT_TRUE(identity);
  Ref<Data> out[3];
  EXPECT_EQ(lockcrypto_identity_to_pem(*identity, &out[0], &out[1], &out[2]), 0);
  EXPECT_EQ(bytes(out[0]) + bytes(out[1]) + bytes(out[2]), bytes(key) + bytes(read("public")) + bytes(own));
  EXPECT_FALSE(is_identity(nullptr, key) || is_identity(own, nullptr) || is_identity(key, key));
  EXPECT_FALSE(is_identity(curve, key) || is_identity(own, Pair(1024).private_pem));
  EXPECT_FALSE(is_identity(own, read("ec")) || is_identity(own, lockcrypto_create_pem(*own, private_label)));
  EXPECT_EQ(platform_.take_texts(),
            (Texts{"lockcrypto_private_key_from_pem_data: lockcrypto_decode_pem failed",
                   "lockcrypto_private_key_from_pem_data: VaultKeyCreateRSAPrivateKey failed"}));

  Probe probe;
  probe.certificate_pem = own;
  EXPECT_EQ(lockcrypto_identity_to_pem(probe, nullptr, &out[1], &out[2]), 0);
  EXPECT_EQ(probe.private_keys_copied, 0);
  for (const auto& [key_of_probe, certificate] : {std::pair{Ref<Data>(), own}, {key, curve}}) {
    probe.private_pem = key_of_probe;
    probe.certificate_pem = certificate;
    EXPECT_EQ(lockcrypto_identity_to_pem(probe, &out[0], &out[1], &out[2]), -1);
    EXPECT_FALSE(out[0] || out[1] || out[2]);
  }
  const auto first = probe.copy_certificate(), second = identity->copy_certificate();
  const VaultCertificate* const chain[] = {first.get(), second.get()};
  EXPECT_FALSE(lockcrypto_public_key_from_certificates(chain) || lockcrypto_public_key_from_certificates({}));
}

TEST_F(Lockcrypto, RequestHoldsNameAndKey) {
  const Pair pair(1024);
  // The request, or what is logged instead.
  const auto request = [&](const char* name, const Ref<Data>& public_pem, const Ref<Data>& private_pem) {
    const auto pem =
        lockcrypto_create_cert_request(*plist::String::create(name), public_pem.get(), private_pem.get());
    return pem ? Texts{bytes(pem)} : platform_.take_texts();
  };
  write("request", data_of(request("Unit 7 (a+b)", pair.public_pem, pair.private_pem).at(0)));
  EXPECT_NE(openssl("req -in request -verify -noout").find("verify OK"), std::string::npos);
  EXPECT_EQ(openssl("req -in request -noout -subject -nameopt oneline,show_type"),
            "subject=CN = PRINTABLESTRING:\"Unit 7 (a+b)\", C = PRINTABLESTRING:NO, ST = PRINTABLESTRING:OS, "
            "L = PRINTABLESTRING:Oslo, O = PRINTABLESTRING:Norvane, OU = PRINTABLESTRING:Corvane\n");

  const std::string self = "lockcrypto_create_cert_request: ";
  const Texts refused = {self + "VaultGenerateCertificateRequestWithParameters failed"};
  EXPECT_EQ(request("x", pair.public_pem, nullptr), Texts{self + "public or private key data not available"});
  EXPECT_EQ(request("x", lockcrypto_create_pem(*data_of("0"), "RSA PUBLIC KEY"), pair.public_pem),
            (Texts{"lockcrypto_public_key_from_pem_data: VaultKeyCreateRSAPublicKey failed",
                   self + "lockcrypto_public_key_from_pem_data failed",
                   "lockcrypto_private_key_from_pem_data: lockcrypto_decode_pem failed",
                   self + "lockcrypto_private_key_from_pem_data failed"}));
  EXPECT_EQ(request("x", Pair(1024).public_pem, pair.private_pem), refused);
  EXPECT_EQ(request("a*", pair.public_pem, pair.private_pem), refused);
}

// The private key's bytes from its private exponent on, in either order, and its text.
testing::Pieces secret_of(const Ref<Data>& private_pem) {
  const std::string text = bytes(private_pem),
                    der = bytes(lockcrypto_decode_pem(private_pem.get(), private_label));
  const std::string secret = der.substr(der.find("\2\3\1\0\1"s) + 5);
  testing::Pieces pieces;
  pieces.add(secret);
  pieces.add(std::string(secret.rbegin(), secret.rend()));
  pieces.add(text.substr(text.size() / 2, text.size() / 4));
  return pieces;
}

// The memory that held a private key goes to whoever allocates next, and into a core file.
TEST_F(Lockcrypto, PrivateKeyIsNowhereWhenItIsReleased) {
  ASSERT_TRUE(testing::libcrypto_is_watched);
  openssl("req -x509 -newkey rsa:1024 -nodes -keyout pkcs8 -subj /CN=x -out certificate");
  openssl("rsa -in pkcs8 -traditional -out key");
  const auto name = plist::String::create("x");
  Ref<Data> key = read("key");
  const Ref<Data> certificate = read("certificate");
  const auto use_everything = [&] {
    Ref<Data> out[3];
    const bool created = lockcrypto_create_key_pair(512, out[0], out[1]) == 0;
    EXPECT_TRUE(!out[0] == !created && !out[1] == !created);
    const auto identity = lockcrypto_identity_from_pem_data(certificate.get(), key.get());
    if (!identity || lockcrypto_identity_to_pem(*identity, &out[0], &out[1], &out[2]) != 0) return false;
    const auto private_key = identity->copy_private_key();
    return private_key && lockcrypto_sign(*private_key, *key) &&
           lockcrypto_create_cert_request(*name, out[1].get(), out[0].get());
  };
  const testing::Pieces secret = secret_of(key);
  const testing::ReleasedMemory released(secret);
  int failures = 0;  // memory runs out at every place in turn
  for (bool done = false; !done && failures < 500; ++failures) {
    testing::allocations_left = failures;
    done = use_everything() && testing::allocations_left >= 0;
    testing::allocations_left = -1;
  }
  EXPECT_TRUE(failures > 30 && failures < 500) << failures;
  EXPECT_EQ(released.pieces_found(), 0u);
  key = nullptr;  // an ordinary value, which nobody wipes
  EXPECT_GT(released.pieces_found(), 0u) << "a piece that is there is found";
}

/// A thread's stack that can be searched afterwards.
struct WatchedStack {
  void run(std::function<void()> work) {
    memory.fill('\0');
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstack(&attributes, memory.data(), memory.size()), 0);
    const auto call = [](void* given) -> void* {
      (*static_cast<std::function<void()>*>(given))();
      return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, call, &work), 0);
    pthread_join(thread, nullptr);
  }
  size_t pieces_of(const Ref<Data>& private_pem) const {
    return secret_of(private_pem).count_in({memory.data(), memory.size()});
  }
  alignas(4096) std::array<char, 1 << 20> memory;
};

#ifndef CORVANE_SANITIZE  // whose builds bind functions lazily, which saves registers on the stack
TEST_F(Lockcrypto, PrivateKeyIsNotLeftOnTheStack) {
  static WatchedStack stack;
  Ref<Data> public_pem, key, out[3];
  stack.run([&] { lockcrypto_create_key_pair(2048, public_pem, key); });
  EXPECT_EQ(stack.pieces_of(key), 0u) << "create_key_pair";
  write("key", key);
  openssl("req -x509 -key key -subj /CN=x -out certificate");
  const Ref<Data> certificate = read("certificate");
  std::unique_ptr<VaultIdentity> identity;
  stack.run([&] { identity = lockcrypto_identity_from_pem_data(certificate.get(), key.get()); });
  EXPECT_EQ(stack.pieces_of(key), 0u) << "identity_from_pem_data";
  stack.run([&] { lockcrypto_identity_to_pem(*identity, &out[0], &out[1], &out[2]); });
  EXPECT_EQ(stack.pieces_of(key), 0u) << "identity_to_pem";
  stack.run([&] { lockcrypto_sign(*identity->copy_private_key(), *certificate); });
  EXPECT_EQ(stack.pieces_of(key), 0u) << "sign";
  stack.run([&] { lockcrypto_create_cert_request(*plist::String::create("x"), public_pem.get(), key.get()); });
  EXPECT_EQ(stack.pieces_of(key), 0u) << "create_cert_request";

  stack.run([&] {
    char deep[32768];  // its beginning is not overwritten by what runs later
    std::memcpy(deep, key->bytes().data() + key->bytes().size() / 2, 8);
    asm volatile("" : : "r"(deep) : "memory");
  });
  EXPECT_GT(stack.pieces_of(key), 0u) << "a piece that is there is found";
}
#endif

}  // namespace
}  // namespace corvane
