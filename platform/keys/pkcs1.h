#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string_view>

#include "plist/value.h"

/// RSA keys as the DER of RFC 8017, appendix A.1, with no copy of a secret left behind. Any thread; nothing is
/// thrown, and libcrypto's error queue is the caller's to clean.
namespace corvane {

struct EvpKeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using EvpKey = std::unique_ptr<EVP_PKEY, EvpKeyFree>;

enum class RsaKeyKind : unsigned char { public_key, private_key };

/// Null for anything but the whole DER of such a key: other forms, other encodings of the same, bytes behind it,
/// a modulus beyond OPENSSL_RSA_MAX_MODULUS_BITS or numbers that are longer than it.
EvpKey read_pkcs1(std::string_view der, RsaKeyKind kind);

/// Wiped when released. Null where `key` is no RSA key, or lacks what the kind has. It must not have more than
/// two primes.
plist::Ref<plist::Data> write_pkcs1(const EVP_PKEY& key, RsaKeyKind kind);

}  // namespace corvane
