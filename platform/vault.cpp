#include "platform/vault.h"

#include "platform/platform.h"

namespace corvane {

std::unique_ptr<VaultKey> VaultKeyCreateRSAPublicKey(std::string_view pkcs1_der) {
  return platform().vault().create_rsa_public_key(pkcs1_der);
}

std::unique_ptr<VaultKey> VaultKeyCreateRSAPrivateKey(std::string_view pkcs1_der) {
  return platform().vault().create_rsa_private_key(pkcs1_der);
}

plist::Ref<plist::Data> VaultGenerateCertificateRequestWithParameters(VaultName subject,
                                                                      const plist::Dictionary* parameters,
                                                                      const VaultKey& public_key,
                                                                      const VaultKey& private_key) {
  return platform().vault().generate_certificate_request(subject, parameters, public_key, private_key);
}

}  // namespace corvane
