#include "support/lockcrypto.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cstdlib>
#include <cstring>

#include "tests/support/failing_allocation.h"
#include "tests/support/test_platform.h"

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

// What is read is compared with a plain reference by fuzz/pem.cpp.
TEST_F(Lockcrypto, WritesPemInLinesOf64) {
  const auto pem_of_zeros = [](size_t size) {
    return bytes(lockcrypto_create_pem(*data_of(std::string(size, '\0')), "X"));
  };
  const std::string line(64, 'A'), header = "-----BEGIN X-----", footer = "\n-----END X-----\n";
  EXPECT_EQ(pem_of_zeros(0), header + footer);
  EXPECT_EQ(pem_of_zeros(1), header + "\nAA==" + footer);
  EXPECT_EQ(pem_of_zeros(48), header + "\n" + line + footer);
  EXPECT_EQ(pem_of_zeros(49), header + "\n" + line + "\nAA==" + footer);
  EXPECT_TRUE(lockcrypto_create_pem(*data_of("a"), std::string(62, 'L').c_str())) << "a marker of 79";
  EXPECT_FALSE(lockcrypto_create_pem(*data_of("a"), std::string(63, 'L').c_str())) << "a marker of 80 bytes";
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

TEST_F(Lockcrypto, IdentityIsACertificateWithItsOwnKey) {
  openssl("genrsa -traditional -out key 4096");
  openssl("rsa -in key -RSAPublicKey_out -out public");
  openssl("req -x509 -key key -subj /CN=x -out certificate");
  openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ec -subj /CN=x -out curve");
  const Ref<Data> key = read("key"), own = read("certificate");
  const auto identity = lockcrypto_identity_from_pem_data(own.get(), key.get());
  ASSERT_TRUE(identity);
  Ref<Data> private_pem, public_pem, certificate_pem;
  EXPECT_EQ(lockcrypto_identity_to_pem(*identity, &private_pem, &public_pem, &certificate_pem), 0);
  EXPECT_EQ(bytes(private_pem), bytes(key));
  EXPECT_EQ(bytes(public_pem), bytes(read("public")));
  EXPECT_EQ(bytes(certificate_pem), bytes(own));

  const auto is_identity = [](const Ref<Data>& certificate, const Ref<Data>& private_key) {
    return lockcrypto_identity_from_pem_data(certificate.get(), private_key.get()) != nullptr;
  };
  EXPECT_FALSE(is_identity(nullptr, key) || is_identity(own, nullptr) || is_identity(key, key));
  EXPECT_FALSE(is_identity(read("curve"), key) || is_identity(own, Pair(1024).private_pem));
  EXPECT_FALSE(is_identity(own, read("ec")) || is_identity(own, lockcrypto_create_pem(*own, private_label)));
  EXPECT_EQ(platform_.take_texts(),
            (Texts{"lockcrypto_private_key_from_pem_data: lockcrypto_decode_pem failed",
                   "lockcrypto_private_key_from_pem_data: VaultKeyCreateRSAPrivateKey failed"}));
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

  const Texts refused = {"lockcrypto_create_cert_request: VaultGenerateCertificateRequestWithParameters failed"};
  EXPECT_EQ(request("x", Pair(1024).public_pem, pair.private_pem), refused) << "no pair";
  EXPECT_EQ(request("a*", pair.public_pem, pair.private_pem), refused) << "no PrintableString";
  EXPECT_EQ(request("x", pair.public_pem, nullptr),
            Texts{"lockcrypto_create_cert_request: public or private key data not available"});
}

// Pieces of 8 bytes of a private key. They are searched for in all memory that is released, libcrypto's as well,
// which allows that only before its first allocation.
Texts pieces;
size_t pieces_released = 0;

Texts pieces_of(const Texts& secrets) {
  Texts all;
  for (const std::string& secret : secrets) {
    for (size_t i = 0; i + 8 <= secret.size(); i += 8) all.push_back(secret.substr(i, 8));
  }
  return all;
}

// Wipes the memory, so that what a test itself leaves there is not found again in what others release later.
void count_pieces(char* memory, size_t size) {
  const std::string_view released(memory, size);
  for (const std::string& piece : pieces) pieces_released += released.find(piece) != released.npos;
  explicit_bzero(memory, size);
}

const bool libcrypto_is_watched =
    CRYPTO_set_mem_functions(
        [](size_t size, const char*, int) { return std::malloc(size); },
        [](void* memory, size_t size, const char*, int) { return std::realloc(memory, size); },
        [](void* memory, const char*, int) { operator delete(memory); }) == 1;

// The memory that held a private key goes to whoever allocates next, and into a core file.
TEST_F(Lockcrypto, PrivateKeyIsNowhereWhenItIsReleased) {
  ASSERT_TRUE(libcrypto_is_watched);
  testing::before_release = count_pieces;
  openssl("req -x509 -newkey rsa:1024 -nodes -keyout pkcs8 -subj /CN=x -out certificate");
  openssl("rsa -in pkcs8 -traditional -out key");
  const auto name = plist::String::create("x");
  Ref<Data> key = read("key");
  const Ref<Data> certificate = read("certificate");
  {
    const std::string text = bytes(key), der = bytes(lockcrypto_decode_pem(key.get(), private_label));
    const std::string secret = der.substr(der.find("\2\3\1\0\1"s) + 5);  // from the private exponent on
    const std::string reversed(secret.rbegin(), secret.rend());
    pieces = pieces_of({secret, reversed, text.substr(text.size() / 2, text.size() / 4)});
  }
  pieces_released = 0;
  bool all_worked = false;
  const auto use_everything = [&] {
    Ref<Data> out[3];
    const bool created = lockcrypto_create_key_pair(512, out[0], out[1]) == 0;
    EXPECT_TRUE(!out[0] == !created && !out[1] == !created) << "both or neither";
    const auto identity = lockcrypto_identity_from_pem_data(certificate.get(), key.get());
    if (!identity) return;
    const bool written = lockcrypto_identity_to_pem(*identity, &out[0], &out[1], &out[2]) == 0;
    for (const auto& pem : out) EXPECT_EQ(!pem, !written) << "all or none";
    const auto private_key = identity->copy_private_key();
    all_worked = written && private_key && lockcrypto_sign(*private_key, *key) &&
                 lockcrypto_create_cert_request(*name, out[1].get(), out[0].get());
  };
  int failures = 0;  // memory runs out at every place in turn
  while (testing::run_with_failing_allocation(failures, use_everything)) ++failures;
  EXPECT_TRUE(all_worked && failures > 30) << failures;
  EXPECT_EQ(pieces_released, 0u);
  key = nullptr;  // an ordinary value, which nobody wipes
  EXPECT_GT(pieces_released, 0u) << "a piece that is there is found";
  testing::before_release = nullptr;
}

}  // namespace
}  // namespace corvane
