#include "support/lockcrypto.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>

#include "platform/platform.h"
#include "tests/support/test_platform.h"

namespace {

using Texts = std::vector<std::string>;

// Counts down to the one allocation that fails; negative: none does.
int allocations_left = -1;

// What no memory may hold when it is given back, and how often it did.
const Texts* secrets = nullptr;
int secrets_found = 0;

void give_back(void* memory, const char*, int) {
  for (size_t i = 0; memory != nullptr && secrets != nullptr && i < secrets->size(); ++i) {
    const std::string& secret = (*secrets)[i];
    secrets_found += memmem(memory, malloc_usable_size(memory), secret.data(), secret.size()) != nullptr;
  }
  std::free(memory);
}

// libcrypto takes them only before its first allocation.
const int libcrypto_watched = CRYPTO_set_mem_functions(
    [](size_t size, const char*, int) { return std::malloc(size); },
    [](void* memory, size_t size, const char*, int) { return std::realloc(memory, size); }, give_back);

}  // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return allocations_left >= 0 && allocations_left-- == 0 ? nullptr : std::malloc(size);
}
void* operator new(size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { give_back(memory, nullptr, 0); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { give_back(memory, nullptr, 0); }

namespace corvane {
namespace {

using plist::Data;
using plist::Ref;
using plist::String;
using testing::read_file;

constexpr char private_label[] = "RSA PRIVATE KEY";
constexpr char public_label[] = "RSA PUBLIC KEY";

Ref<Data> data_of(std::string_view bytes) { return Data::create(bytes); }
std::string bytes(const Ref<Data>& data) { return data ? std::string(data->bytes()) : "null"; }
std::string decoded(std::string_view text) { return bytes(lockcrypto_decode_pem(data_of(text).get(), "X")); }
std::string text_of(const std::unique_ptr<VaultKey>& key, const char* label) {
  return key ? bytes(lockcrypto_pem_from_key(*key, label)) : "no key";
}

struct Pair {
  explicit Pair(uint32_t bits) { EXPECT_EQ(lockcrypto_create_key_pair(bits, public_pem, private_pem), 0) << bits; }
  Ref<Data> public_pem;
  Ref<Data> private_pem;
};

/// Beside the openssl command, which works in the test's folder.
class Lockcrypto : public ::testing::Test {
 protected:
  ~Lockcrypto() override { EXPECT_EQ(ERR_peek_error(), 0U); }

  // What the command prints, errors too.
  std::string openssl(const std::string& arguments) {
    const std::string command = "cd " + folder_ + " && openssl " + arguments + " >out 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << arguments << "\n" << read_file(folder_ + "out");
    return read_file(folder_ + "out");
  }
  void write(const std::string& name, const Ref<Data>& data) { testing::write_file(folder_ + name, bytes(data)); }
  Ref<Data> read(const std::string& name) { return data_of(read_file(folder_ + name)); }
  auto certificate(const std::string& name) { return lockcrypto_certificate_from_pem_data(read(name).get()); }

  testing::TestPlatform& platform_ = testing::TestPlatform::fresh();
  const std::string folder_ = platform_.root() + "/var/";
};

TEST_F(Lockcrypto, PemTextIsWhatItMustBe) {
  const std::string line(64, 'A');
  const std::pair<size_t, std::string> bodies[] = {
      {0, ""}, {1, "\nAA=="}, {48, "\n" + line}, {49, "\n" + line + "\nAA=="}, {96, "\n" + line + "\n" + line}};
  for (const auto& [size, body] : bodies) {
    EXPECT_EQ(bytes(lockcrypto_create_pem(*data_of(std::string(size, '\0')), "X")),
              "-----BEGIN X-----" + body + "\n-----END X-----\n");
  }
  EXPECT_TRUE(lockcrypto_create_pem(*data_of("a"), std::string(62, 'L').c_str()));
  EXPECT_FALSE(lockcrypto_create_pem(*data_of("a"), std::string(63, 'L').c_str()));
  EXPECT_FALSE(lockcrypto_decode_pem(data_of("a").get(), std::string(63, 'L').c_str()));

  const std::string header = "-----BEGIN X-----\n";
  const std::string footer = "\n-----END X-----\n";
  const std::string nul(1, '\0');
  const std::string text = header + "QUJD" + footer;
  EXPECT_EQ(decoded("note\n" + text + header + "QUI=" + footer + nul), "ABC");
  EXPECT_EQ(decoded(header + "QU\r\nJD\r\n QUI=" + footer), "ABCAB");
  EXPECT_EQ(decoded(header + "****" + footer), "");
  const Texts bad = {"",
                     header + footer,
                     header + footer.substr(1),
                     footer + text,
                     text.substr(0, text.size() - 1),
                     "-----BEGIN X-----\r\nQUJD" + footer,
                     "-----BEGIN Y-----\nQUJD" + footer,
                     header + "QUJD\n-----END X" + nul + "-----\n",
                     header + "QU" + nul + "JD" + footer};
  for (const std::string& each : bad) EXPECT_EQ(decoded(each), "null") << each;
  EXPECT_FALSE(lockcrypto_decode_pem(nullptr, "X"));
  const Ref<Data> large = data_of(std::string(3'000'001, '\x9c'));
  EXPECT_EQ(decoded(bytes(lockcrypto_create_pem(*large, "X"))), bytes(large));
}

TEST_F(Lockcrypto, KeysAndSignaturesAreThoseOfOpenssl) {
  const Ref<Data> text = data_of("to be signed");
  write("data", text);
  openssl("genrsa -traditional -out 4096 4096");
  for (const uint32_t bits : {512U, 1000U, 1024U, 2048U, 4096U}) {
    const std::string name = std::to_string(bits);
    if (bits < 4096) {
      const Pair pair(bits);
      write(name, pair.private_pem);
      write("made", pair.public_pem);
    }
    openssl("rsa -check -noout -in " + name);
    openssl("rsa -in " + name + " -RSAPublicKey_out -out public");
    openssl("dgst -sha1 -sign " + name + " -out signature data");
    EXPECT_TRUE(bits == 4096 || bytes(read("made")) == bytes(read("public")));
    const auto private_key = lockcrypto_private_key_from_pem_data(read(name).get());
    const auto public_key = lockcrypto_public_key_from_pem_data(read("public").get());
    ASSERT_EQ(text_of(private_key, private_label), bytes(read(name)));
    ASSERT_EQ(text_of(public_key, public_label), bytes(read("public")));
    const Ref<Data> signature = lockcrypto_sign(*private_key, *text);
    ASSERT_EQ(bytes(signature), bytes(read("signature")));
    EXPECT_EQ(lockcrypto_verify(*public_key, *signature, *text), 0);
    EXPECT_EQ(lockcrypto_verify(*public_key, *signature, *data_of("to be Signed")), -1);
    EXPECT_EQ(lockcrypto_verify(*public_key, *data_of(signature->bytes().substr(1)), *text), -1);
    EXPECT_EQ(lockcrypto_verify(*public_key, *data_of(""), *text), -1);
    EXPECT_FALSE(lockcrypto_sign(*public_key, *text));
  }
  Ref<Data> untouched = text;
  for (const uint32_t bits : {0U, 511U, 16385U, 0x80000000U, 0xffffffffU}) {
    EXPECT_EQ(lockcrypto_create_key_pair(bits, untouched, untouched), -1);
  }
  EXPECT_EQ(untouched.get(), text.get());

  char hex[41];
  EXPECT_STREQ(lockcrypto_sha1_hex(*data_of(""), hex), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_NE(openssl("dgst -sha1 data").find(lockcrypto_sha1_hex(*text, hex)), std::string::npos);
}

TEST_F(Lockcrypto, OnlyExactBytesAreKeysAndCertificates) {
  openssl("genrsa -traditional -out pem 512");
  for (const char* arguments :
       {"rsa -in pem -traditional -outform DER -out 0", "rsa -in pem -RSAPublicKey_out -outform DER -out 1",
        "req -x509 -key pem -subj /CN=x -outform DER -out 2", "rsa -in pem -pubout -outform DER -out 3",
        "pkcs8 -topk8 -nocrypt -in pem -outform DER -out 4"}) {
    openssl(arguments);
  }
  Vault& vault = platform_.vault();
  for (const int reader : {0, 1, 2}) {
    const auto text_of_what_is_read = [&](std::string_view der) {
      if (reader == 0) return text_of(vault.create_rsa_private_key(der), "X");
      if (reader == 1) return text_of(vault.create_rsa_public_key(der), "X");
      const auto read = vault.create_certificate(der);
      return read ? bytes(lockcrypto_create_pem(*read->copy_der(), "X")) : "no key";
    };
    for (const int file : {0, 1, 2, 3, 4}) {
      const std::string text = text_of_what_is_read(read(std::to_string(file))->bytes());
      EXPECT_EQ(text != "no key", file == reader) << file << " given as " << reader;
    }
    std::string der = bytes(read(std::to_string(reader)));
    EXPECT_EQ(text_of_what_is_read(der + '\0'), "no key");
    for (size_t n = 0; n < der.size(); ++n) EXPECT_EQ(text_of_what_is_read(der.substr(0, n)), "no key") << n;
    // Another key at best, never another reading of the same bytes.
    for (size_t bit = 0; bit < der.size() * 8; ++bit) {
      const auto flip = [&] { der[bit / 8] = static_cast<char>(der[bit / 8] ^ 1 << bit % 8); };
      flip();
      const std::string text = text_of_what_is_read(der);
      EXPECT_TRUE(reader == 2 || text == "no key" || decoded(text) == der) << bit;
      flip();
    }
  }
}

struct Probe final : VaultIdentity {
  std::unique_ptr<VaultKey> copy_private_key() const override {
    ++private_keys_copied;
    return lockcrypto_private_key_from_pem_data(private_pem.get());
  }
  std::unique_ptr<VaultCertificate> copy_certificate() const override {
    return lockcrypto_certificate_from_pem_data(certificate_pem.get());
  }
  Ref<Data> private_pem;
  Ref<Data> certificate_pem;
  mutable int private_keys_copied = 0;
};

TEST_F(Lockcrypto, IdentityGoesInAndOutWhole) {
  openssl("genrsa -traditional -out key 1024");
  openssl("rsa -in key -RSAPublicKey_out -out public");
  openssl("req -x509 -key key -subj /CN=x -out certificate");
  openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ec -subj /CN=x -out curve");
  const auto is_identity = [&](const Ref<Data>& certificate, const Ref<Data>& key) {
    return lockcrypto_identity_from_pem_data(certificate.get(), key.get()) != nullptr;
  };
  const Ref<Data> key = read("key");
  const Ref<Data> own = read("certificate");
  const auto identity = lockcrypto_identity_from_pem_data(own.get(), key.get());
  ASSERT_TRUE(identity);
  Ref<Data> out[3];
  EXPECT_EQ(lockcrypto_identity_to_pem(*identity, &out[0], &out[1], &out[2]), 0);
  EXPECT_EQ(bytes(out[0]) + bytes(out[1]) + bytes(out[2]), bytes(key) + bytes(read("public")) + bytes(own));
  EXPECT_FALSE(is_identity(nullptr, key) || is_identity(own, nullptr) || is_identity(key, key));
  EXPECT_FALSE(is_identity(read("curve"), key) || is_identity(own, Pair(1024).private_pem));
  EXPECT_EQ(platform_.take_texts(), Texts{});
  EXPECT_FALSE(is_identity(own, read("ec")));
  EXPECT_EQ(platform_.take_texts(), Texts{"lockcrypto_private_key_from_pem_data: lockcrypto_decode_pem failed"});

  Probe probe;
  probe.certificate_pem = own;
  EXPECT_EQ(lockcrypto_identity_to_pem(probe, nullptr, &out[1], &out[2]), 0);
  EXPECT_EQ(probe.private_keys_copied, 0);
  EXPECT_EQ(lockcrypto_identity_to_pem(probe, &out[0], nullptr, nullptr), -1);
  EXPECT_FALSE(out[0]);
  probe.private_pem = key;
  probe.certificate_pem = read("curve");
  EXPECT_EQ(lockcrypto_identity_to_pem(probe, &out[0], &out[1], &out[2]), -1);
  EXPECT_FALSE(out[0] || out[1] || out[2]);
  EXPECT_EQ(lockcrypto_identity_to_pem(probe, &out[0], nullptr, &out[2]), 0);

  const auto first = certificate("certificate");
  const auto second = certificate("curve");
  const VaultCertificate* const chain[] = {first.get(), second.get()};
  EXPECT_EQ(text_of(lockcrypto_public_key_from_certificates(chain), public_label), bytes(read("public")));
  EXPECT_FALSE(lockcrypto_public_key_from_certificates(std::span(chain).subspan(1)));
  EXPECT_FALSE(lockcrypto_public_key_from_certificates({}));
}

TEST_F(Lockcrypto, RequestHoldsNameAndKey) {
  const Pair pair(1024);
  const auto request = [](const char* name, const Ref<Data>& public_pem, const Ref<Data>& private_pem) {
    return lockcrypto_create_cert_request(*String::create(name), public_pem.get(), private_pem.get());
  };
  write("private", pair.private_pem);
  write("request", request("Unit 7 (a+b)", pair.public_pem, pair.private_pem));
  EXPECT_NE(openssl("req -in request -verify -noout").find("verify OK"), std::string::npos);
  EXPECT_EQ(openssl("req -in request -pubkey -noout"), openssl("pkey -in private -pubout"));
  std::istringstream structure(openssl("asn1parse -in request"));
  std::string head;
  for (std::string line; std::getline(structure, line) && line.find(":rsaEnc") == line.npos;) {
    if (line.find("SEQUENCE") == line.npos) head += line.substr(line.find(": "));
  }
  std::string wanted = ": INTEGER           :00";
  for (const auto& [type, value] : {std::pair{"commonName", "Unit 7 (a+b)"},
                                    {"countryName", "NO"},
                                    {"stateOrProvinceName", "OS"},
                                    {"localityName", "Oslo"},
                                    {"organizationName", "Norvane"},
                                    {"organizationalUnitName", "Corvane"}}) {
    wanted += ": SET               : OBJECT            :" + std::string(type) + ": PRINTABLESTRING   :" + value;
  }
  EXPECT_EQ(head, wanted);
  EXPECT_EQ(platform_.take_texts(), Texts{});

  const auto fails = [&](const char* name, const Ref<Data>& public_pem, const Ref<Data>& private_pem, Texts log) {
    EXPECT_FALSE(request(name, public_pem, private_pem));
    for (std::string& line : log) {
      if (line.front() == ' ') line.insert(0, "lockcrypto_create_cert_request:");
    }
    EXPECT_EQ(platform_.take_texts(), log);
  };
  const auto not_der = [](const char* label) { return lockcrypto_create_pem(*data_of("0"), label); };
  fails("x", nullptr, pair.private_pem, {" public or private key data not available"});
  fails("x", pair.public_pem, nullptr, {" public or private key data not available"});
  fails("x", pair.private_pem, pair.public_pem,
        {"lockcrypto_public_key_from_pem_data: lockcrypto_decode_pem failed",
         " lockcrypto_public_key_from_pem_data failed",
         "lockcrypto_private_key_from_pem_data: lockcrypto_decode_pem failed",
         " lockcrypto_private_key_from_pem_data failed"});
  fails("x", not_der(public_label), pair.private_pem,
        {"lockcrypto_public_key_from_pem_data: VaultKeyCreateRSAPublicKey failed",
         " lockcrypto_public_key_from_pem_data failed"});
  fails("x", pair.public_pem, not_der(private_label),
        {"lockcrypto_private_key_from_pem_data: VaultKeyCreateRSAPrivateKey failed",
         " lockcrypto_private_key_from_pem_data failed"});
  const Texts refused = {" VaultGenerateCertificateRequestWithParameters failed"};
  fails("x", Pair(1024).public_pem, pair.private_pem, refused);
  fails("a*", pair.public_pem, pair.private_pem, refused);
}

// The memory that held a private key goes to whoever allocates next, and into a core file.
TEST_F(Lockcrypto, PrivateKeyIsNowhereWhenItIsReleased) {
  ASSERT_EQ(libcrypto_watched, 1);
  openssl("req -x509 -newkey rsa:1024 -nodes -keyout pkcs8 -subj /CN=x -out certificate");
  openssl("rsa -in pkcs8 -traditional -out key");
  const auto name = String::create("x");
  const Ref<Data> certificate = read("certificate");
  Ref<Data> key = read("key");
  // Out of the text; and of the private exponent and of both primes, in either order of bytes.
  const std::string der = bytes(lockcrypto_decode_pem(key.get(), private_label));
  Texts parts = {bytes(key).substr(300, 24)};
  for (const size_t at : {200U, 300U, 370U}) {
    parts.push_back(der.substr(at, 16));
    parts.push_back({parts.back().rbegin(), parts.back().rend()});
  }
  const auto use_everything = [&] {
    const auto identity = lockcrypto_identity_from_pem_data(certificate.get(), key.get());
    Ref<Data> out[3];
    if (!identity || lockcrypto_identity_to_pem(*identity, &out[0], &out[1], &out[2]) != 0) return false;
    const auto private_key = identity->copy_private_key();
    return private_key && lockcrypto_sign(*private_key, *key) &&
           lockcrypto_create_cert_request(*name, out[1].get(), out[0].get());
  };
  secrets = &parts;
  // Wherever memory runs out, too.
  int failures = 0;
  for (bool done = false; !done; ++failures) {
    allocations_left = failures;
    done = use_everything();
    allocations_left = -1;
  }
  EXPECT_GT(failures, 20);
  EXPECT_EQ(secrets_found, 0);
  key = nullptr;  // an ordinary value, as whoever read it made it
  EXPECT_GT(secrets_found, 0);
  secrets = nullptr;
  for (int i = 0, result = -1; result != 0; ++i) {
    Ref<Data> pair[2];
    allocations_left = i;
    result = lockcrypto_create_key_pair(512, pair[0], pair[1]);
    allocations_left = -1;
    EXPECT_EQ(pair[0] && pair[1], result == 0);
  }
}

}  // namespace
}  // namespace corvane
