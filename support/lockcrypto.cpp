#include "support/lockcrypto.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "daemon/log/cv_log.h"
#include "support/b64.h"

namespace corvane {

using plist::Data;
using plist::MutableData;
using plist::Ref;

namespace {

// The product's own part of a request's subject.
constexpr char subject_country[] = "NO";
constexpr char subject_state[] = "OS";
constexpr char subject_locality[] = "Oslo";
constexpr char subject_organization[] = "Norvane";
constexpr char subject_organizational_unit[] = "Corvane";

constexpr char private_key_label[] = "RSA PRIVATE KEY";
constexpr char public_key_label[] = "RSA PUBLIC KEY";
constexpr char certificate_label[] = "CERTIFICATE";
constexpr char request_label[] = "CERTIFICATE REQUEST";

// The lines before and after the Base64 text. They are to be used only where they fit.
class Markers {
 public:
  explicit Markers(const char* label)
      : header_size_(std::snprintf(header_, sizeof header_, "-----BEGIN %s-----\n", label)),
        footer_size_(std::snprintf(footer_, sizeof footer_, "\n-----END %s-----\n", label)) {}

  bool fit() const { return fits(header_size_) && fits(footer_size_); }
  // Precondition of both: they fit.
  std::string_view header() const { return {header_, static_cast<size_t>(header_size_)}; }
  std::string_view footer() const { return {footer_, static_cast<size_t>(footer_size_)}; }

 private:
  static constexpr size_t buffer_size = 80;
  static bool fits(int size) { return size >= 0 && static_cast<size_t>(size) < buffer_size; }

  char header_[buffer_size];
  char footer_[buffer_size];
  const int header_size_;
  const int footer_size_;
};

}  // namespace

Ref<Data> lockcrypto_create_pem(const Data& data, const char* label) {
  const Markers markers(label);
  if (!markers.fit()) return nullptr;
  const std::string_view bytes = data.bytes();
  const size_t size = b64_encode2(bytes.data(), bytes.size(), nullptr, 0, B64_LINES_64, 0, nullptr);
  if (size == 0) return nullptr;
  // The size of no bytes is one below zero, so the footer then replaces the header's line feed.
  const std::string_view header = markers.header();
  const std::string_view footer = markers.footer();
  const size_t footer_at = header.size() + size;
  Ref<MutableData> pem = MutableData::create_secret(footer_at + footer.size());
  if (!pem) return nullptr;
  char* text = pem->mutable_bytes();
  std::memcpy(text, header.data(), header.size());
  b64_encode2(bytes.data(), bytes.size(), text + header.size(), size, B64_LINES_64, 0, nullptr);
  std::memcpy(text + footer_at, footer.data(), footer.size());
  return MutableData::freeze(std::move(pem));
}

Ref<Data> lockcrypto_decode_pem(const Data* pem, const char* label) {
  const Markers markers(label);
  if (pem == nullptr || !markers.fit()) return nullptr;
  const std::string_view text = pem->bytes().substr(0, pem->bytes().find('\0'));
  const size_t header_at = text.find(markers.header());
  const size_t footer_at = text.find(markers.footer());
  if (header_at == text.npos || footer_at == text.npos) return nullptr;
  const size_t body_at = header_at + markers.header().size();
  if (footer_at < body_at) return nullptr;
  const std::string_view body = text.substr(body_at, footer_at - body_at);
  const size_t bound = b64_decode(body.data(), body.size(), nullptr, 0);
  if (bound == 0) return nullptr;
  Ref<MutableData> der = MutableData::create_secret(bound);
  if (!der) return nullptr;
  const size_t size = b64_decode(body.data(), body.size(), der->mutable_bytes(), bound);
  return MutableData::freeze(std::move(der), size);
}

Ref<Data> lockcrypto_pem_from_key(const VaultKey& key, const char* label) {
  const Ref<plist::Dictionary> attributes = key.copy_attributes();
  if (!attributes) return nullptr;
  const auto* value_data = plist::cast<Data>(attributes->get(vault_value_data));
  return value_data == nullptr ? nullptr : lockcrypto_create_pem(*value_data, label);
}

std::unique_ptr<VaultKey> lockcrypto_public_key_from_pem_data(const Data* pem) {
  const Ref<Data> der = lockcrypto_decode_pem(pem, public_key_label);
  if (!der) {
    cv_log("lockcrypto_public_key_from_pem_data", 0, "lockcrypto_decode_pem failed");
    return nullptr;
  }
  auto key = VaultKeyCreateRSAPublicKey(der->bytes());
  if (!key) cv_log("lockcrypto_public_key_from_pem_data", 0, "VaultKeyCreateRSAPublicKey failed");
  return key;
}

std::unique_ptr<VaultKey> lockcrypto_private_key_from_pem_data(const Data* pem) {
  const Ref<Data> der = lockcrypto_decode_pem(pem, private_key_label);
  if (!der) {
    cv_log("lockcrypto_private_key_from_pem_data", 0, "lockcrypto_decode_pem failed");
    return nullptr;
  }
  auto key = VaultKeyCreateRSAPrivateKey(der->bytes());
  if (!key) cv_log("lockcrypto_private_key_from_pem_data", 0, "VaultKeyCreateRSAPrivateKey failed");
  return key;
}

std::unique_ptr<VaultCertificate> lockcrypto_certificate_from_pem_data(const Data* pem) {
  const Ref<Data> der = lockcrypto_decode_pem(pem, certificate_label);
  return der ? vault().create_certificate(der->bytes()) : nullptr;
}

std::unique_ptr<VaultIdentity> lockcrypto_identity_from_pem_data(const Data* certificate_pem,
                                                                 const Data* private_key_pem) {
  if (certificate_pem == nullptr || private_key_pem == nullptr) return nullptr;
  const auto certificate = lockcrypto_certificate_from_pem_data(certificate_pem);
  if (!certificate) return nullptr;
  const auto private_key = lockcrypto_private_key_from_pem_data(private_key_pem);
  return private_key ? vault().create_identity(*certificate, *private_key) : nullptr;
}

int lockcrypto_identity_to_pem(const VaultIdentity& identity, Ref<Data>* private_key_pem,
                               Ref<Data>* public_key_pem, Ref<Data>* certificate_pem) {
  Ref<Data> private_text;
  Ref<Data> public_text;
  Ref<Data> certificate_text;
  if (private_key_pem != nullptr) {
    if (const auto key = identity.copy_private_key())
      private_text = lockcrypto_pem_from_key(*key, private_key_label);
  }
  if (public_key_pem != nullptr || certificate_pem != nullptr) {
    const auto certificate = identity.copy_certificate();
    if (certificate && certificate_pem != nullptr) {
      if (const Ref<Data> der = certificate->copy_der()) {
        certificate_text = lockcrypto_create_pem(*der, certificate_label);
      }
    }
    if (certificate && public_key_pem != nullptr) {
      const VaultCertificate* const alone[] = {certificate.get()};
      if (const auto key = lockcrypto_public_key_from_certificates(alone)) {
        public_text = lockcrypto_pem_from_key(*key, public_key_label);
      }
    }
  }

  const bool all = (private_key_pem == nullptr || private_text) && (public_key_pem == nullptr || public_text) &&
                   (certificate_pem == nullptr || certificate_text);
  if (private_key_pem != nullptr) *private_key_pem = all ? private_text : nullptr;
  if (public_key_pem != nullptr) *public_key_pem = all ? public_text : nullptr;
  if (certificate_pem != nullptr) *certificate_pem = all ? certificate_text : nullptr;
  return all ? 0 : -1;
}

std::unique_ptr<VaultKey> lockcrypto_public_key_from_certificates(
    std::span<const VaultCertificate* const> certificates) {
  const auto policy = vault().create_basic_x509_policy();
  if (!policy) return nullptr;
  const auto trust = vault().create_trust(certificates, *policy);
  return trust ? trust->copy_public_key() : nullptr;
}

int lockcrypto_create_key_pair(uint32_t bits, Ref<Data>& public_key_pem, Ref<Data>& private_key_pem) try {
  const auto parameters = plist::MutableDictionary::create(2);
  parameters->set(vault_key_type, plist::String::create(vault_key_type_rsa));
  parameters->set(vault_key_size, plist::Number::create_int32(static_cast<int32_t>(bits)));
  const VaultKeyPair pair = vault().generate_key_pair(*parameters);
  if (!pair.public_key || !pair.private_key) return -1;
  Ref<Data> public_text = lockcrypto_pem_from_key(*pair.public_key, public_key_label);
  Ref<Data> private_text = lockcrypto_pem_from_key(*pair.private_key, private_key_label);
  if (!public_text || !private_text) return -1;
  public_key_pem = std::move(public_text);
  private_key_pem = std::move(private_text);
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

Ref<Data> lockcrypto_create_cert_request(const plist::String& common_name, const Data* public_key_pem,
                                         const Data* private_key_pem) {
  constexpr char function[] = "lockcrypto_create_cert_request";
  if (public_key_pem == nullptr || private_key_pem == nullptr) {
    cv_log(function, 0, "public or private key data not available");
    return nullptr;
  }
  const auto public_key = lockcrypto_public_key_from_pem_data(public_key_pem);
  if (!public_key) cv_log(function, 0, "lockcrypto_public_key_from_pem_data failed");
  const auto private_key = lockcrypto_private_key_from_pem_data(private_key_pem);
  if (!private_key) cv_log(function, 0, "lockcrypto_private_key_from_pem_data failed");
  if (!public_key || !private_key) return nullptr;

  constexpr auto printable = VaultStringType::printable_string;
  const VaultNameAttribute attributes[] = {
      {VaultAttributeType::common_name, printable, common_name.view()},
      {VaultAttributeType::country_name, printable, subject_country},
      {VaultAttributeType::state_or_province_name, printable, subject_state},
      {VaultAttributeType::locality_name, printable, subject_locality},
      {VaultAttributeType::organization_name, printable, subject_organization},
      {VaultAttributeType::organizational_unit_name, printable, subject_organizational_unit},
  };
  VaultRelativeName subject[std::size(attributes)];
  for (size_t i = 0; i < std::size(attributes); ++i) subject[i] = {&attributes[i], 1};

  const Ref<Data> request =
      VaultGenerateCertificateRequestWithParameters(subject, nullptr, *public_key, *private_key);
  if (!request) {
    cv_log(function, 0, "VaultGenerateCertificateRequestWithParameters failed");
    return nullptr;
  }
  Ref<Data> pem = lockcrypto_create_pem(*request, request_label);
  if (!pem) cv_log(function, 0, "lockcrypto_create_pem of the cert request failed");
  return pem;
}

Ref<Data> lockcrypto_sign(const VaultKey& private_key, const Data& data) {
  VaultSha1Digest digest;
  if (!vault().sha1(data.bytes(), digest)) return nullptr;
  size_t size = private_key.block_size();
  Ref<MutableData> signature = MutableData::create_secret(size);
  if (!signature || !private_key.raw_sign(digest, signature->mutable_bytes(), size)) return nullptr;
  return MutableData::freeze(std::move(signature), size);
}

int lockcrypto_verify(const VaultKey& public_key, const Data& signature, const Data& data) {
  VaultSha1Digest digest;
  const bool valid = vault().sha1(data.bytes(), digest) && public_key.raw_verify(digest, signature.bytes());
  return valid ? 0 : -1;
}

char* lockcrypto_sha1_hex(const Data& data, char* buffer) {
  VaultSha1Digest digest;
  if (!vault().sha1(data.bytes(), digest)) return nullptr;
  char* at = buffer;
  for (const unsigned char byte : digest) at += std::snprintf(at, 3, "%02x", unsigned{byte});
  return buffer;
}

}  // namespace corvane
