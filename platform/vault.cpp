#include "platform/vault.h"

#include <atomic>

namespace corvane {

namespace {

std::atomic<Vault*> installed_vault{nullptr};

}  // namespace

Vault& vault() { return *installed_vault.load(std::memory_order_acquire); }

void install_vault(Vault* installed) { installed_vault.store(installed, std::memory_order_release); }

std::unique_ptr<VaultKey> VaultKeyCreateRSAPublicKey(std::string_view pkcs1_der) {
  return vault().create_rsa_public_key(pkcs1_der);
}

std::unique_ptr<VaultKey> VaultKeyCreateRSAPrivateKey(std::string_view pkcs1_der) {
  return vault().create_rsa_private_key(pkcs1_der);
}

plist::Ref<plist::Data> VaultGenerateCertificateRequestWithParameters(VaultName subject,
                                                                      const plist::Dictionary* parameters,
                                                                      const VaultKey& public_key,
                                                                      const VaultKey& private_key) {
  return vault().generate_certificate_request(subject, parameters, public_key, private_key);
}

}  // namespace corvane
