#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "platform/vault.h"
#include "plist/value.h"

/// PEM text (RFC 7468, in lines of 64 characters), RSA keys, certificates and certificate requests, done by the
/// platform's key and certificate service.
///
/// What is returned is new and the caller's. A function that fails, for want of memory too, answers null or -1,
/// leaves nothing behind and throws nothing. No state; any thread. No key object outlives the call that made it
/// for itself, and the buffers of everything here are wiped when they are released: text and bytes of a private
/// key are left nowhere but in the data value that the caller owns.
namespace corvane {

/// The text of DER bytes under a label, without a NUL. Null where a marker with that label would not fit into 80
/// bytes, its NUL included. Of no bytes at all the header without its line feed and the whole footer.
plist::Ref<plist::Data> lockcrypto_create_pem(const plist::Data& data, const char* label);

/// The bytes between the first header and the first footer with that label, line feeds and all, in front of any
/// NUL. Null where either is missing, the footer does not come after the header, or nothing stands between them.
/// Characters that are not Base64 are passed over; null gives null.
plist::Ref<plist::Data> lockcrypto_decode_pem(const plist::Data* pem, const char* label);

/// The text of the key's raw bytes.
plist::Ref<plist::Data> lockcrypto_pem_from_key(const VaultKey& key, const char* label);

// From an "RSA PUBLIC KEY" or "RSA PRIVATE KEY", which holds PKCS #1; a failure is logged.
std::unique_ptr<VaultKey> lockcrypto_public_key_from_pem_data(const plist::Data* pem);
std::unique_ptr<VaultKey> lockcrypto_private_key_from_pem_data(const plist::Data* pem);

std::unique_ptr<VaultCertificate> lockcrypto_certificate_from_pem_data(const plist::Data* pem);

/// A certificate with its private key; null also where the two do not belong together.
std::unique_ptr<VaultIdentity> lockcrypto_identity_from_pem_data(const plist::Data* certificate_pem,
                                                                 const plist::Data* private_key_pem);

/// Stores the texts that are asked for, those whose pointer is not null: all of them, or null in each and the
/// result is -1. The private key is copied only where it is asked for.
int lockcrypto_identity_to_pem(const VaultIdentity& identity, plist::Ref<plist::Data>* private_key_pem,
                               plist::Ref<plist::Data>* public_key_pem, plist::Ref<plist::Data>* certificate_pem);

/// That of the first certificate, which no trust is evaluated for; null unless it is an RSA key.
std::unique_ptr<VaultKey> lockcrypto_public_key_from_certificates(
    std::span<const VaultCertificate* const> certificates);

/// Stores the texts of a new RSA key pair; a failure leaves both as they are.
int lockcrypto_create_key_pair(uint32_t bits, plist::Ref<plist::Data>& public_key_pem,
                               plist::Ref<plist::Data>& private_key_pem);

/// The text of a PKCS #10 request for the key pair, signed with its private key. The subject is the common name
/// and what the product is configured with, all of them PrintableStrings: a common name with other characters
/// than such a string has (see platform/vault.h) gives null, as does a pair that is none. A failure is logged.
plist::Ref<plist::Data> lockcrypto_create_cert_request(const plist::String& common_name,
                                                       const plist::Data* public_key_pem,
                                                       const plist::Data* private_key_pem);

/// The signature, RSASSA-PKCS1-v1_5 with SHA-1 (RFC 8017, 8.2), of the data's bytes.
plist::Ref<plist::Data> lockcrypto_sign(const VaultKey& private_key, const plist::Data& data);

/// 0 where the signature is that of the data's bytes, otherwise -1.
int lockcrypto_verify(const VaultKey& public_key, const plist::Data& signature, const plist::Data& data);

/// Writes the SHA-1 digest of the data's bytes as 40 lower-case hexadecimal digits and a NUL. Returns `buffer`.
char* lockcrypto_sha1_hex(const plist::Data& data, char* buffer);

}  // namespace corvane
