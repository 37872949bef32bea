// PEM text, keys and certificates that anyone may have sent: the input as text, and its bytes under each label,
// because a fuzzer hardly guesses Base64. What is accepted must be written as it was read, and using it must do no
// harm.

#include <openssl/err.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz/ensure.h"
#include "fuzz/plain_base64.h"
#include "support/lockcrypto.h"
#include "tests/support/test_platform.h"

namespace corvane::fuzz {

using plist::Data;
using plist::Ref;

namespace {

constexpr char public_label[] = "RSA PUBLIC KEY";
constexpr char private_label[] = "RSA PRIVATE KEY";
constexpr char certificate_label[] = "CERTIFICATE";

// Signing with the largest keys that are accepted would take most of the time.
constexpr size_t largest_block = 512;

// A request's digest is longer than that of other signatures.
constexpr size_t smallest_block_for_requests = 64;

void expect_decoded(const Data& pem, const char* label) {
  const std::string text(pem.bytes().substr(0, pem.bytes().find('\0')));
  const std::string header = std::string("-----BEGIN ") + label + "-----\n";
  const size_t begin = text.find(header);
  const size_t end = text.find(std::string("\n-----END ") + label + "-----\n");
  const Ref<Data> der = lockcrypto_decode_pem(&pem, label);
  const size_t body = begin + header.size();
  if (begin == text.npos || end == text.npos || end <= body) {
    ENSURE(!der);
  } else {
    ENSURE(der && der->bytes() == testing::plain_decode(text.substr(body, end - body), 0).octets);
  }
}

void expect_usable(const VaultKey& key, bool is_private) {
  const Ref<Data> data = Data::create("data");
  ENSURE(lockcrypto_verify(key, *data, *data) == -1);
  if (key.block_size() > largest_block) return;
  const Ref<Data> signature = lockcrypto_sign(key, *data);
  ENSURE(is_private || !signature);
  if (!signature) return;
  ENSURE(signature->bytes().size() == key.block_size());
  // The halves of a key that somebody made up need not belong together.
  lockcrypto_verify(key, *signature, *data);
}

// A key that was accepted is written as it was read.
void try_key(const Data& pem, const char* label) {
  const bool is_private = label == private_label;
  const auto key =
      is_private ? lockcrypto_private_key_from_pem_data(&pem) : lockcrypto_public_key_from_pem_data(&pem);
  if (!key) return;
  const Ref<Data> again = lockcrypto_pem_from_key(*key, label);
  const Ref<Data> der = lockcrypto_decode_pem(&pem, label);
  ENSURE(again && der && lockcrypto_decode_pem(again.get(), label)->bytes() == der->bytes());
  expect_usable(*key, is_private);
}

void try_certificate(const Data& pem) {
  const auto certificate = lockcrypto_certificate_from_pem_data(&pem);
  if (!certificate) return;
  const Ref<Data> der = certificate->copy_der();
  ENSURE(der && der->bytes() == lockcrypto_decode_pem(&pem, certificate_label)->bytes());
  const VaultCertificate* const alone[] = {certificate.get()};
  if (const auto key = lockcrypto_public_key_from_certificates(alone)) expect_usable(*key, false);
}

// A private key belongs to a certificate if the public halves are equal, so it may still be unable to sign.
void try_identity(const Data& pem) {
  const auto identity = lockcrypto_identity_from_pem_data(&pem, &pem);
  if (!identity) return;
  Ref<Data> private_pem, public_pem, certificate_pem;
  ENSURE(lockcrypto_identity_to_pem(*identity, &private_pem, &public_pem, &certificate_pem) == 0);
  ENSURE(private_pem && public_pem && certificate_pem);
  const auto public_key = lockcrypto_public_key_from_pem_data(public_pem.get());
  const auto private_key = lockcrypto_private_key_from_pem_data(private_pem.get());
  ENSURE(public_key && private_key);
  if (private_key->block_size() > largest_block) return;
  const auto request =
      lockcrypto_create_cert_request(*plist::String::create("name"), public_pem.get(), private_pem.get());
  const Ref<Data> signature = lockcrypto_sign(*private_key, *public_pem);
  if (signature && lockcrypto_verify(*public_key, *signature, *public_pem) == 0) {
    ENSURE(request || private_key->block_size() < smallest_block_for_requests);
  }
}

void try_pem(const Data& pem) {
  expect_decoded(pem, certificate_label);
  for (const char* label : {public_label, private_label}) {
    expect_decoded(pem, label);
    try_key(pem, label);
  }
  try_certificate(pem);
  try_identity(pem);
  ENSURE(ERR_peek_error() == 0);
}

}  // namespace
}  // namespace corvane::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace corvane;
  static testing::TestPlatform& platform = testing::TestPlatform::fresh();
  const auto input = plist::Data::create({reinterpret_cast<const char*>(bytes), size});
  fuzz::try_pem(*input);
  for (const char* label : {fuzz::public_label, fuzz::private_label, fuzz::certificate_label}) {
    const auto pem = lockcrypto_create_pem(*input, label);
    const auto der = lockcrypto_decode_pem(pem.get(), label);
    ENSURE(size == 0 ? !der : der && der->bytes() == input->bytes());
    if (der) fuzz::try_pem(*pem);
  }
  platform.take_lines();
  return 0;
}
