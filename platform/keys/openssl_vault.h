#pragma once

#include "platform/vault.h"

namespace corvane {

/// The key and certificate service, done by libcrypto in this process. Keeps nothing, and does nothing before it
/// is asked; leaves libcrypto's error queue as it was.
class OpenSslVault final : public Vault {
 public:
  std::unique_ptr<VaultKey> create_rsa_public_key(std::string_view der) override;
  std::unique_ptr<VaultKey> create_rsa_private_key(std::string_view der) override;
  VaultKeyPair generate_key_pair(const plist::Dictionary& parameters) override;
  std::unique_ptr<VaultCertificate> create_certificate(std::string_view der) override;
  std::unique_ptr<VaultIdentity> create_identity(const VaultCertificate& certificate,
                                                 const VaultKey& private_key) override;
  std::unique_ptr<VaultPolicy> create_basic_x509_policy() override;
  std::unique_ptr<VaultTrust> create_trust(std::span<const VaultCertificate* const> certificates,
                                           const VaultPolicy& policy) override;
  plist::Ref<plist::Data> generate_certificate_request(VaultName subject, const plist::Dictionary* parameters,
                                                       const VaultKey& public_key,
                                                       const VaultKey& private_key) override;
  bool sha1(std::string_view bytes, VaultSha1Digest& digest) override;
};

}  // namespace corvane
