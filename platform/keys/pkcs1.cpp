#include "platform/keys/pkcs1.h"

#include <openssl/asn1.h>
#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <span>

// Both kinds of key are a SEQUENCE of INTEGERs, which go to libcrypto and come from it as parameters. Its own
// decoders take other forms too when asked for this one, and neither they nor its encoders wipe their buffers.
//
// An INTEGER is held as a view of its value, big-endian without leading zeros. Reading is lenient; then the
// INTEGERs are written again, and unless that gives the bytes that were read, the key is refused.

namespace corvane {

namespace {

using plist::Data;
using plist::MutableData;
using plist::Ref;

constexpr const char* parameter_names[] = {
    OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,
    OSSL_PKEY_PARAM_RSA_D,         OSSL_PKEY_PARAM_RSA_FACTOR1,
    OSSL_PKEY_PARAM_RSA_FACTOR2,   OSSL_PKEY_PARAM_RSA_EXPONENT1,
    OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1,
};
constexpr size_t private_parameters = std::size(parameter_names);
constexpr size_t public_parameters = 2;

// In bytes; no other number of a key is larger than its modulus.
constexpr size_t largest_modulus = OPENSSL_RSA_MAX_MODULUS_BITS / 8;

// A private key's INTEGERs begin with the version, which is 0 for two primes.
constexpr size_t versions_of(RsaKeyKind kind) { return kind == RsaKeyKind::private_key ? 1 : 0; }
constexpr size_t parameters_of(RsaKeyKind kind) {
  return kind == RsaKeyKind::private_key ? private_parameters : public_parameters;
}

using Integers = std::array<std::string_view, 1 + private_parameters>;
using Parameters = std::array<OSSL_PARAM, private_parameters + 1>;

// Between big-endian and the processor's order, in which libcrypto's parameters are.
void turn(char* bytes, size_t size) {
  if constexpr (std::endian::native == std::endian::little) std::reverse(bytes, bytes + size);
}

OSSL_PARAM parameter(const char* name, char* bytes, size_t size) {
  return OSSL_PARAM_construct_BN(name, reinterpret_cast<unsigned char*>(bytes), size);
}

std::string_view without_zeros(std::string_view bytes) {
  bytes.remove_prefix(std::min(bytes.find_first_not_of('\0'), bytes.size()));
  return bytes;
}

// Takes an element off the front of `rest` and answers its contents.
std::optional<std::string_view> take_element(std::string_view& rest, int tag) {
  const auto* at = reinterpret_cast<const unsigned char*>(rest.data());
  long size = 0;
  int tag_found = 0;
  int tag_class = 0;
  const int form = ASN1_get_object(&at, &size, &tag_found, &tag_class, static_cast<long>(rest.size()));
  if ((form & 0x80) != 0 || tag_found != tag) return std::nullopt;
  const std::string_view contents(reinterpret_cast<const char*>(at), static_cast<size_t>(size));
  rest.remove_prefix(static_cast<size_t>(contents.data() + contents.size() - rest.data()));
  return contents;
}

bool read_integers(std::string_view der, std::span<std::string_view> integers) {
  std::optional<std::string_view> sequence = take_element(der, V_ASN1_SEQUENCE);
  if (!sequence) return false;
  for (std::string_view& integer : integers) {
    const std::optional<std::string_view> contents = take_element(*sequence, V_ASN1_INTEGER);
    if (!contents) return false;
    integer = without_zeros(*contents);
  }
  return true;
}

// An INTEGER has at least one byte, and would be negative if its first bit were set.
bool needs_zero(std::string_view integer) { return integer.empty() || (integer.front() & 0x80) != 0; }

int contents_size(std::string_view integer) { return static_cast<int>(integer.size() + needs_zero(integer)); }

Ref<Data> write_integers(std::span<const std::string_view> integers) {
  int size = 0;
  for (const std::string_view integer : integers) {
    size += ASN1_object_size(0, contents_size(integer), V_ASN1_INTEGER);
  }
  const auto whole = static_cast<size_t>(ASN1_object_size(1, size, V_ASN1_SEQUENCE));
  Ref<MutableData> der = MutableData::create_secret(whole);
  if (!der) return nullptr;
  auto* at = reinterpret_cast<unsigned char*>(der->mutable_bytes());
  ASN1_put_object(&at, 1, size, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
  for (const std::string_view integer : integers) {
    ASN1_put_object(&at, 0, contents_size(integer), V_ASN1_INTEGER, V_ASN1_UNIVERSAL);
    if (needs_zero(integer)) *at++ = 0;
    at = std::copy(integer.begin(), integer.end(), at);
  }
  return MutableData::freeze(std::move(der));
}

}  // namespace

EvpKey read_pkcs1(std::string_view der, RsaKeyKind kind) {
  Integers all;
  const auto integers = std::span(all).first(versions_of(kind) + parameters_of(kind));
  if (!read_integers(der, integers)) return nullptr;
  if (versions_of(kind) > 0 && !integers.front().empty()) return nullptr;
  const auto numbers = integers.subspan(versions_of(kind));
  const size_t width = numbers.front().size();
  if (width == 0 || width > largest_modulus) return nullptr;
  for (const std::string_view number : numbers) {
    if (number.size() > width) return nullptr;
  }
  const Ref<Data> canonical = write_integers(integers);
  if (!canonical || canonical->bytes() != der) return nullptr;

  const Ref<MutableData> native = MutableData::create_secret(der.size());
  if (!native) return nullptr;
  std::memcpy(native->mutable_bytes(), der.data(), der.size());
  Parameters parameters;
  for (size_t i = 0; i < numbers.size(); ++i) {
    char* number = native->mutable_bytes() + (numbers[i].data() - der.data());
    turn(number, numbers[i].size());
    parameters[i] = parameter(parameter_names[i], number, numbers[i].size());
  }
  parameters[numbers.size()] = OSSL_PARAM_construct_end();

  struct ContextFree {
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  };
  const std::unique_ptr<EVP_PKEY_CTX, ContextFree> context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* key = nullptr;
  const int selection = kind == RsaKeyKind::private_key ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY;
  if (!context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, selection, parameters.data()) != 1) {
    return nullptr;
  }
  return EvpKey(key);
}

Ref<Data> write_pkcs1(const EVP_PKEY& key, RsaKeyKind kind) {
  if (EVP_PKEY_is_a(&key, "RSA") != 1) return nullptr;
  const auto width = static_cast<size_t>(EVP_PKEY_get_size(&key));
  const size_t count = parameters_of(kind);
  const Ref<MutableData> numbers = MutableData::create_secret(count * width);
  if (!numbers) return nullptr;
  Parameters parameters;
  for (size_t i = 0; i < count; ++i) {
    parameters[i] = parameter(parameter_names[i], numbers->mutable_bytes() + i * width, width);
  }
  parameters[count] = OSSL_PARAM_construct_end();
  if (EVP_PKEY_get_params(&key, parameters.data()) != 1) return nullptr;

  Integers integers;
  for (size_t i = 0; i < count; ++i) {
    if (OSSL_PARAM_modified(&parameters[i]) != 1) return nullptr;
    char* number = numbers->mutable_bytes() + i * width;
    turn(number, width);
    integers[versions_of(kind) + i] = without_zeros({number, width});
  }
  return write_integers(std::span(integers).first(versions_of(kind) + count));
}

}  // namespace corvane
