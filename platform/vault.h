#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "plist/value.h"

/// The key and certificate service. A real one implements these classes; nothing above this header knows more
/// of it.
///
/// Its objects are immutable, belong to whoever creates or copies them, and may be given only to the service that
/// made them. Any thread. An operation that fails, also where memory runs out, returns null or false, leaves
/// nothing behind and throws nothing. Data values that the service creates are wiped when they are released.
namespace corvane {

using VaultSha1Digest = std::array<unsigned char, 20>;

/// The attribute that holds a key's raw bytes, a data value: the DER of an RSAPublicKey or RSAPrivateKey (RFC
/// 8017, appendix A.1).
inline constexpr std::string_view vault_value_data = "ValueData";

/// The parameters of a new pair: its type, a string, and the bits of its modulus, a 32-bit integer.
inline constexpr std::string_view vault_key_type = "KeyType";
inline constexpr std::string_view vault_key_type_rsa = "RSA";
inline constexpr std::string_view vault_key_size = "KeySizeInBits";

/// An RSA key, public or private.
class VaultKey {
 public:
  virtual ~VaultKey() = default;

  virtual plist::Ref<plist::Dictionary> copy_attributes() const = 0;
  /// The bytes of the modulus, which are those of a signature.
  virtual size_t block_size() const = 0;
  /// RSASSA-PKCS1-v1_5 (RFC 8017, 8.2) over a SHA-1 digest. `size` is the capacity of `signature`, and then the
  /// bytes written. Precondition: the capacity is at least `block_size()`. False for a public key.
  virtual bool raw_sign(const VaultSha1Digest& digest, char* signature, size_t& size) const = 0;
  virtual bool raw_verify(const VaultSha1Digest& digest, std::string_view signature) const = 0;
};

struct VaultKeyPair {
  std::unique_ptr<VaultKey> public_key;  ///< both or neither
  std::unique_ptr<VaultKey> private_key;
};

/// An X.509 certificate.
class VaultCertificate {
 public:
  virtual ~VaultCertificate() = default;

  virtual plist::Ref<plist::Data> copy_der() const = 0;
};

/// A certificate and the private key that belongs to it.
class VaultIdentity {
 public:
  virtual ~VaultIdentity() = default;

  virtual std::unique_ptr<VaultKey> copy_private_key() const = 0;
  virtual std::unique_ptr<VaultCertificate> copy_certificate() const = 0;
};

/// What a trust would be evaluated by.
class VaultPolicy {
 public:
  virtual ~VaultPolicy() = default;
};

class VaultTrust {
 public:
  virtual ~VaultTrust() = default;

  /// The public key of the leaf certificate, which need not be trusted; null unless it is an RSA key.
  virtual std::unique_ptr<VaultKey> copy_public_key() const = 0;
};

enum class VaultAttributeType : uint8_t {
  common_name,
  country_name,
  state_or_province_name,
  locality_name,
  organization_name,
  organizational_unit_name,
};
enum class VaultStringType : uint8_t { printable_string };

struct VaultNameAttribute {
  VaultAttributeType type;
  VaultStringType string_type;
  std::string_view value;
};
using VaultRelativeName = std::span<const VaultNameAttribute>;
using VaultName = std::span<const VaultRelativeName>;

class Vault {
 public:
  virtual ~Vault() = default;

  // From exactly the DER of an RSAPublicKey, or of an RSAPrivateKey of two primes (RFC 8017, appendix A.1).
  virtual std::unique_ptr<VaultKey> create_rsa_public_key(std::string_view der) = 0;
  virtual std::unique_ptr<VaultKey> create_rsa_private_key(std::string_view der) = 0;
  /// The time that it takes grows with the fourth power of the key's size.
  virtual VaultKeyPair generate_key_pair(const plist::Dictionary& parameters) = 0;

  // From exactly the DER of a certificate (RFC 5280).
  virtual std::unique_ptr<VaultCertificate> create_certificate(std::string_view der) = 0;
  /// Null where the private key is not that of the certificate.
  virtual std::unique_ptr<VaultIdentity> create_identity(const VaultCertificate& certificate,
                                                         const VaultKey& private_key) = 0;

  virtual std::unique_ptr<VaultPolicy> create_basic_x509_policy() = 0;
  /// The first certificate is the leaf; null where there is none.
  virtual std::unique_ptr<VaultTrust> create_trust(std::span<const VaultCertificate* const> certificates,
                                                   const VaultPolicy& policy) = 0;

  /// The DER of a PKCS #10 request (RFC 2986, version 0, no attributes), signed with RSA and SHA-256. Null where
  /// the keys are not a pair, and where a value holds a character that its string type does not have. The
  /// characters of a PrintableString are A-Z a-z 0-9 blank ' ( ) + , - . / : = ?
  ///
  /// There are no further parameters: `parameters` is null.
  virtual plist::Ref<plist::Data> generate_certificate_request(VaultName subject,
                                                               const plist::Dictionary* parameters,
                                                               const VaultKey& public_key,
                                                               const VaultKey& private_key) = 0;

  virtual bool sha1(std::string_view bytes, VaultSha1Digest& digest) = 0;
};

/// The installed service. Precondition: there is one.
Vault& vault();

/// Makes `installed` the service that `vault()` answers. It must outlive every use. It is installed apart from the
/// platform, so that a process which asks nothing of it does not load the library behind it.
void install_vault(Vault* installed);

// The service's operations by their names.

std::unique_ptr<VaultKey> VaultKeyCreateRSAPublicKey(std::string_view pkcs1_der);
std::unique_ptr<VaultKey> VaultKeyCreateRSAPrivateKey(std::string_view pkcs1_der);
plist::Ref<plist::Data> VaultGenerateCertificateRequestWithParameters(VaultName subject,
                                                                      const plist::Dictionary* parameters,
                                                                      const VaultKey& public_key,
                                                                      const VaultKey& private_key);

}  // namespace corvane
