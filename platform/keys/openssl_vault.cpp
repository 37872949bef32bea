#include "platform/keys/openssl_vault.h"

#include <climits>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <new>

#include "platform/keys/pkcs1.h"

namespace corvane {

namespace {

using plist::Data;
using plist::MutableData;
using plist::Ref;

struct Free {
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_REQ* request) const { X509_REQ_free(request); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

EvpKey shared(EVP_PKEY* key) { return EvpKey(EVP_PKEY_up_ref(key) == 1 ? key : nullptr); }
Owned<X509> shared(X509* certificate) {
  return Owned<X509>(X509_up_ref(certificate) == 1 ? certificate : nullptr);
}

// Removes from libcrypto's error queue what is added to it in the scope.
class ErrorQueueKeeper {
 public:
  ErrorQueueKeeper() { ERR_set_mark(); }
  ErrorQueueKeeper(const ErrorQueueKeeper&) = delete;
  ErrorQueueKeeper& operator=(const ErrorQueueKeeper&) = delete;
  ~ErrorQueueKeeper() { ERR_pop_to_mark(); }
};

// A handle on `object`; null where that is null or memory is out.
template <class Handle, class Object, class... Rest>
std::unique_ptr<Handle> make(Object object, Rest... rest) {
  if (!object) return nullptr;
  return std::unique_ptr<Handle>(new (std::nothrow) Handle(std::move(object), std::move(rest)...));
}

// The DER that an i2d function of libcrypto writes of `object`.
template <class T>
Ref<Data> to_der(int (*i2d)(const T*, unsigned char**), const T* object) {
  const int size = i2d(object, nullptr);
  if (size <= 0) return nullptr;
  Ref<MutableData> der = MutableData::create_secret(static_cast<size_t>(size));
  if (!der) return nullptr;
  auto* at = reinterpret_cast<unsigned char*>(der->mutable_bytes());
  if (i2d(object, &at) != size) return nullptr;
  return MutableData::freeze(std::move(der));
}

class OpenSslKey final : public VaultKey {
 public:
  OpenSslKey(EvpKey key, RsaKeyKind kind) : key_(std::move(key)), kind_(kind) {}

  Ref<plist::Dictionary> copy_attributes() const override {
    const ErrorQueueKeeper keeper;
    const Ref<Data> pkcs1 = write_pkcs1(*key_, kind_);
    if (!pkcs1) return nullptr;
    try {
      auto attributes = plist::MutableDictionary::create(1);
      attributes->set(vault_value_data, pkcs1);
      return plist::MutableDictionary::freeze(std::move(attributes));
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }

  size_t block_size() const override { return static_cast<size_t>(EVP_PKEY_get_size(evp())); }

  bool raw_sign(const VaultSha1Digest& digest, char* signature, size_t& size) const override {
    const ErrorQueueKeeper keeper;
    const Owned<EVP_PKEY_CTX> context = prepare(EVP_PKEY_sign_init);
    return context && EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature), &size,
                                    digest.data(), digest.size()) == 1;
  }

  bool raw_verify(const VaultSha1Digest& digest, std::string_view signature) const override {
    const ErrorQueueKeeper keeper;
    const Owned<EVP_PKEY_CTX> context = prepare(EVP_PKEY_verify_init);
    return context && EVP_PKEY_verify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                                      signature.size(), digest.data(), digest.size()) == 1;
  }

  EVP_PKEY* evp() const { return key_.get(); }

 private:
  Owned<EVP_PKEY_CTX> prepare(int (*init)(EVP_PKEY_CTX*)) const {
    Owned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_from_pkey(nullptr, evp(), nullptr));
    const bool prepared = context && init(context.get()) == 1 &&
                          EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                          EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()) == 1;
    return prepared ? std::move(context) : nullptr;
  }

  const EvpKey key_;
  const RsaKeyKind kind_;
};

class OpenSslCertificate final : public VaultCertificate {
 public:
  explicit OpenSslCertificate(Owned<X509> certificate) : certificate_(std::move(certificate)) {}

  Ref<Data> copy_der() const override {
    const ErrorQueueKeeper keeper;
    return to_der<X509>(i2d_X509, x509());
  }

  X509* x509() const { return certificate_.get(); }

 private:
  const Owned<X509> certificate_;
};

class OpenSslIdentity final : public VaultIdentity {
 public:
  OpenSslIdentity(Owned<X509> certificate, EvpKey private_key)
      : certificate_(std::move(certificate)), private_key_(std::move(private_key)) {}

  std::unique_ptr<VaultKey> copy_private_key() const override {
    return make<OpenSslKey>(shared(private_key_.get()), RsaKeyKind::private_key);
  }
  std::unique_ptr<VaultCertificate> copy_certificate() const override {
    return make<OpenSslCertificate>(shared(certificate_.get()));
  }

 private:
  const Owned<X509> certificate_;
  const EvpKey private_key_;
};

class BasicX509Policy final : public VaultPolicy {};

class OpenSslTrust final : public VaultTrust {
 public:
  explicit OpenSslTrust(Owned<X509> leaf) : leaf_(std::move(leaf)) {}

  std::unique_ptr<VaultKey> copy_public_key() const override {
    const ErrorQueueKeeper keeper;
    EvpKey key(X509_get_pubkey(leaf_.get()));
    if (!key || EVP_PKEY_is_a(key.get(), "RSA") != 1) return nullptr;
    return make<OpenSslKey>(std::move(key), RsaKeyKind::public_key);
  }

 private:
  const Owned<X509> leaf_;
};

EVP_PKEY* evp(const VaultKey& key) { return static_cast<const OpenSslKey&>(key).evp(); }
X509* x509(const VaultCertificate& certificate) {
  return static_cast<const OpenSslCertificate&>(certificate).x509();
}

std::unique_ptr<VaultKey> create_key(std::string_view der, RsaKeyKind kind) {
  const ErrorQueueKeeper keeper;
  return make<OpenSslKey>(read_pkcs1(der, kind), kind);
}

int nid_of(VaultAttributeType type) {
  switch (type) {
    case VaultAttributeType::common_name:
      return NID_commonName;
    case VaultAttributeType::country_name:
      return NID_countryName;
    case VaultAttributeType::state_or_province_name:
      return NID_stateOrProvinceName;
    case VaultAttributeType::locality_name:
      return NID_localityName;
    case VaultAttributeType::organization_name:
      return NID_organizationName;
    case VaultAttributeType::organizational_unit_name:
      return NID_organizationalUnitName;
  }
  return NID_undef;
}

bool is_printable_string(std::string_view text) {
  constexpr std::string_view characters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 '()+,-./:=?";
  return text.find_first_not_of(characters) == text.npos;
}

bool add_relative_name(X509_NAME* name, VaultRelativeName attributes) {
  int place = 0;  // a relative name of its own; -1: the one before
  for (const VaultNameAttribute& attribute : attributes) {
    const std::string_view value = attribute.value;
    if (!is_printable_string(value) || value.size() > INT_MAX) return false;
    if (X509_NAME_add_entry_by_NID(name, nid_of(attribute.type), V_ASN1_PRINTABLESTRING,
                                   reinterpret_cast<const unsigned char*>(value.data()),
                                   static_cast<int>(value.size()), -1, place) != 1) {
      return false;
    }
    place = -1;
  }
  return true;
}

// The bits that the parameters of a new pair ask for, or 0.
size_t rsa_bits(const plist::Dictionary& parameters) {
  const auto* type = plist::cast<plist::String>(parameters.get(vault_key_type));
  const auto* bits = plist::cast<plist::Number>(parameters.get(vault_key_size));
  const bool good = type != nullptr && type->view() == vault_key_type_rsa && bits != nullptr &&
                    bits->type() == plist::Number::Type::int32 && bits->int64() > 0 &&
                    bits->int64() <= OPENSSL_RSA_MAX_MODULUS_BITS;
  return good ? static_cast<size_t>(bits->int64()) : 0;
}

}  // namespace

std::unique_ptr<VaultKey> OpenSslVault::create_rsa_public_key(std::string_view der) {
  return create_key(der, RsaKeyKind::public_key);
}

std::unique_ptr<VaultKey> OpenSslVault::create_rsa_private_key(std::string_view der) {
  return create_key(der, RsaKeyKind::private_key);
}

VaultKeyPair OpenSslVault::generate_key_pair(const plist::Dictionary& parameters) {
  const ErrorQueueKeeper keeper;
  const size_t bits = rsa_bits(parameters);
  if (bits == 0) return {};
  EvpKey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", bits));
  if (!key) return {};
  // Read from its own DER, so that it has no private half to sign with.
  const Ref<Data> public_der = write_pkcs1(*key, RsaKeyKind::public_key);
  if (!public_der) return {};
  VaultKeyPair pair{create_rsa_public_key(public_der->bytes()),
                    make<OpenSslKey>(std::move(key), RsaKeyKind::private_key)};
  return pair.public_key && pair.private_key ? std::move(pair) : VaultKeyPair{};
}

std::unique_ptr<VaultCertificate> OpenSslVault::create_certificate(std::string_view der) {
  const ErrorQueueKeeper keeper;
  const auto* at = reinterpret_cast<const unsigned char*>(der.data());
  Owned<X509> certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
  if (!certificate) return nullptr;
  // libcrypto takes other forms too, and would write another certificate than it read.
  const Ref<Data> canonical = to_der<X509>(i2d_X509, certificate.get());
  if (!canonical || canonical->bytes() != der) return nullptr;
  return make<OpenSslCertificate>(std::move(certificate));
}

std::unique_ptr<VaultIdentity> OpenSslVault::create_identity(const VaultCertificate& certificate,
                                                             const VaultKey& private_key) {
  const ErrorQueueKeeper keeper;
  if (X509_check_private_key(x509(certificate), evp(private_key)) != 1) return nullptr;
  EvpKey key = shared(evp(private_key));
  if (!key) return nullptr;
  return make<OpenSslIdentity>(shared(x509(certificate)), std::move(key));
}

std::unique_ptr<VaultPolicy> OpenSslVault::create_basic_x509_policy() {
  return std::unique_ptr<VaultPolicy>(new (std::nothrow) BasicX509Policy);
}

std::unique_ptr<VaultTrust> OpenSslVault::create_trust(std::span<const VaultCertificate* const> certificates,
                                                       const VaultPolicy&) {
  if (certificates.empty()) return nullptr;
  return make<OpenSslTrust>(shared(x509(*certificates.front())));
}

Ref<Data> OpenSslVault::generate_certificate_request(VaultName subject, const plist::Dictionary* parameters,
                                                     const VaultKey& public_key, const VaultKey& private_key) {
  const ErrorQueueKeeper keeper;
  const Owned<X509_REQ> request(X509_REQ_new());
  if (parameters != nullptr || !request || EVP_PKEY_eq(evp(public_key), evp(private_key)) != 1) return nullptr;
  for (const VaultRelativeName attributes : subject) {
    if (!add_relative_name(X509_REQ_get_subject_name(request.get()), attributes)) return nullptr;
  }
  if (X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) != 1 ||
      X509_REQ_set_pubkey(request.get(), evp(public_key)) != 1 ||
      X509_REQ_sign(request.get(), evp(private_key), EVP_sha256()) == 0) {
    return nullptr;
  }
  return to_der<X509_REQ>(i2d_X509_REQ, request.get());
}

bool OpenSslVault::sha1(std::string_view bytes, VaultSha1Digest& digest) {
  const ErrorQueueKeeper keeper;
  return EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha1(), nullptr) == 1;
}

}  // namespace corvane
