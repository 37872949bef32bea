#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "platform/vault.h"
#include "plist/value.h"

/// PEM text (RFC 7468, in lines of 64 characters), RSA keys, certificates and certificate requests, done by the
/// platform's key and certificate service.
///
/// Precondition: a key and certificate service is installed (install_vault in platform/vault.h). `main` installs
/// none, because no method of the daemon needs one yet.
///
/// What is returned is new and belongs to the caller. A function that fails, also where memory runs out, returns
/// null or -1, leaves nothing behind and throws nothing. There is no state; any thread.
///
/// Every buffer is wiped when it is released, so text and bytes of a private key stay only in the data value that
/// the caller owns.
namespace corvane {

/// The PEM text of DER bytes, without a NUL. Null where a marker with that label would not fit into 80 bytes, its
/// NUL included. The text of no bytes is the header without its line feed, and the footer.
plist::Ref<plist::Data> lockcrypto_create_pem(const plist::Data& data, const char* label);

/// Decodes the text between the first header and the first footer with that label, whose line feeds are part of
/// them. A NUL ends the search, and characters that are not Base64 are skipped. Null where a marker is missing,
/// where the footer does not come after the header, where nothing is between them, and for null.
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

/// The public key of the first certificate, which need not be trusted; null unless it is an RSA key.
std::unique_ptr<VaultKey> lockcrypto_public_key_from_certificates(
    std::span<const VaultCertificate* const> certificates);

/// Stores the texts of a new RSA key pair; a failure leaves both as they are.
int lockcrypto_create_key_pair(uint32_t bits, plist::Ref<plist::Data>& public_key_pem,
                               plist::Ref<plist::Data>& private_key_pem);

/// The text of a PKCS #10 request for the key pair, signed with its private key. The subject is the common name
/// and what the product is configured with, all PrintableStrings. Null, and logged, on failure: also where the
/// common name has characters that a PrintableString does not have (see platform/vault.h), and where the keys are
/// not a pair.
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
