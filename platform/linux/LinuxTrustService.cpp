#include "platform/linux/LinuxTrustService.h"

#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <cmath>
#include <ctime>
#include <utility>

#include "platform/Clock.h"
#include "platform/linux/OpenSslHandles.h"
#include "platform/linux/TrustAnchors.h"

namespace platform {

namespace {

using namespace ossl;

class LinuxCertificate : public Certificate {
 public:
  explicit LinuxCertificate(X509Ptr cert) : cert(std::move(cert)) {}
  X509Ptr cert;
};

class LinuxTrustPolicy : public TrustPolicy {
 public:
  explicit LinuxTrustPolicy(std::vector<X509Ptr> anchors) : anchors(std::move(anchors)) {}
  std::vector<X509Ptr> anchors;
};

class LinuxPublicKey : public PublicKey {
 public:
  explicit LinuxPublicKey(EvpPkeyPtr key) : key(std::move(key)) {}
  EvpPkeyPtr key;
};

// Owns its own references to everything, so it outlives the policy and the
// certificate objects it was made from.
class LinuxTrustObject : public TrustObject {
 public:
  X509Ptr leaf;
  X509StackPtr intermediates;
  X509StorePtr anchors;
};

// Failures a later change on the device could cure (another anchor, the
// clock) are recoverable; a chain that is broken in itself is fatal.
TrustResult resultForVerifyError(int error) {
  switch (error) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_CERT_UNTRUSTED:
      return TrustResult::RecoverableTrustFailure;
    default:
      return TrustResult::FatalTrustFailure;
  }
}

// A signer's leaf that states its uses must allow signing content.
bool leafMaySign(X509* leaf) {
  std::uint32_t flags = X509_get_extension_flags(leaf);
  if ((flags & EXFLAG_KUSAGE) && !(X509_get_key_usage(leaf) & KU_DIGITAL_SIGNATURE)) return false;
  if ((flags & EXFLAG_XKUSAGE) &&
      !(X509_get_extended_key_usage(leaf) & (XKU_CODE_SIGN | XKU_ANYEKU)))
    return false;
  return true;
}

}  // namespace

LinuxTrustService::LinuxTrustService(TrustAnchorFolders folders, Clock* clock)
    : folders_(std::move(folders)), clock_(clock) {}

std::shared_ptr<Certificate> LinuxTrustService::createCertificate(
    std::span<const std::uint8_t> der) {
  if (der.empty() || der.size() > static_cast<std::size_t>(INT32_MAX)) return nullptr;
  const unsigned char* cursor = der.data();
  X509Ptr cert(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  // Trailing bytes mean the data is not exactly one certificate.
  if (!cert || cursor != der.data() + der.size()) {
    ERR_clear_error();
    return nullptr;
  }
  return std::make_shared<LinuxCertificate>(std::move(cert));
}

std::unique_ptr<TrustPolicy> LinuxTrustService::createPolicy(const std::string& folder) {
  std::vector<X509Ptr> anchors = loadAnchorFolder(folder);
  if (anchors.empty()) return nullptr;
  return std::make_unique<LinuxTrustPolicy>(std::move(anchors));
}

std::unique_ptr<TrustPolicy> LinuxTrustService::createProductionSigningPolicy() {
  return createPolicy(folders_.production);
}

std::unique_ptr<TrustPolicy> LinuxTrustService::createDevelopmentSigningPolicy() {
  return createPolicy(folders_.development);
}

TrustStatus LinuxTrustService::createTrust(std::vector<std::shared_ptr<Certificate>> certificates,
                                           const TrustPolicy& policy,
                                           std::unique_ptr<TrustObject>& out) {
  out.reset();
  const auto* linuxPolicy = dynamic_cast<const LinuxTrustPolicy*>(&policy);
  if (certificates.empty() || linuxPolicy == nullptr) return trust_status::kBadParameter;

  auto trust = std::make_unique<LinuxTrustObject>();
  trust->intermediates.reset(sk_X509_new_null());
  trust->anchors.reset(X509_STORE_new());
  if (!trust->intermediates || !trust->anchors) return trust_status::kNoMemory;

  for (std::size_t i = 0; i < certificates.size(); ++i) {
    const auto* cert = dynamic_cast<const LinuxCertificate*>(certificates[i].get());
    if (cert == nullptr) return trust_status::kBadParameter;
    X509Ptr shared = shareX509(cert->cert.get());
    if (!shared) return trust_status::kInternal;
    if (i == 0) {
      trust->leaf = std::move(shared);
    } else {
      if (sk_X509_push(trust->intermediates.get(), shared.get()) <= 0)
        return trust_status::kNoMemory;
      (void)shared.release();  // the stack owns it now
    }
  }
  for (const X509Ptr& anchor : linuxPolicy->anchors) {
    if (X509_STORE_add_cert(trust->anchors.get(), anchor.get()) != 1) {
      // The same anchor in two files is harmless.
      if (ERR_GET_REASON(ERR_peek_last_error()) != X509_R_CERT_ALREADY_IN_HASH_TABLE) {
        ERR_clear_error();
        return trust_status::kInternal;
      }
      ERR_clear_error();
    }
  }
  // An anchor ends the chain even when it is not self-signed, so a policy
  // may be rooted at an intermediate of a wider hierarchy.
  X509_STORE_set_flags(trust->anchors.get(), X509_V_FLAG_PARTIAL_CHAIN);
  out = std::move(trust);
  return trust_status::kSuccess;
}

TrustStatus LinuxTrustService::evaluateTrust(TrustObject& trustObject, TrustResult& result) {
  result = TrustResult::Invalid;
  auto* trust = dynamic_cast<LinuxTrustObject*>(&trustObject);
  if (trust == nullptr) return trust_status::kBadParameter;

  X509StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!ctx) return trust_status::kNoMemory;
  if (X509_STORE_CTX_init(ctx.get(), trust->anchors.get(), trust->leaf.get(),
                          trust->intermediates.get()) != 1) {
    ERR_clear_error();
    return trust_status::kInternal;
  }
  if (clock_ != nullptr) {
    X509_STORE_CTX_set_time(ctx.get(), 0, static_cast<time_t>(std::floor(clock_->now().seconds())));
  }
  int verified = X509_verify_cert(ctx.get());
  if (verified == 1) {
    result =
        leafMaySign(trust->leaf.get()) ? TrustResult::Unspecified : TrustResult::FatalTrustFailure;
  } else if (verified == 0) {
    result = resultForVerifyError(X509_STORE_CTX_get_error(ctx.get()));
  } else {
    result = TrustResult::OtherError;
  }
  ERR_clear_error();
  return trust_status::kSuccess;
}

std::unique_ptr<PublicKey> LinuxTrustService::copyPublicKey(TrustObject& trustObject) {
  auto* trust = dynamic_cast<LinuxTrustObject*>(&trustObject);
  if (trust == nullptr || !trust->leaf) return nullptr;
  EvpPkeyPtr key = shareKey(X509_get0_pubkey(trust->leaf.get()));
  ERR_clear_error();
  if (!key) return nullptr;
  return std::make_unique<LinuxPublicKey>(std::move(key));
}

TrustStatus LinuxTrustService::verifyPkcs1Sha1(const PublicKey& publicKey,
                                               std::span<const std::uint8_t> digest,
                                               std::span<const std::uint8_t> signature) {
  const auto* key = dynamic_cast<const LinuxPublicKey*>(&publicKey);
  if (key == nullptr || digest.size() != 20) return trust_status::kBadParameter;
  if (EVP_PKEY_get_base_id(key->key.get()) != EVP_PKEY_RSA) return trust_status::kBadParameter;
  // The modulus fixes the signature's length; anything else cannot match.
  if (signature.size() != static_cast<std::size_t>(EVP_PKEY_get_size(key->key.get())))
    return trust_status::kBadSignature;

  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key->key.get(), nullptr));
  if (!ctx) return trust_status::kNoMemory;
  if (EVP_PKEY_verify_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()) != 1) {
    ERR_clear_error();
    return trust_status::kInternal;
  }
  int verified =
      EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), digest.data(), digest.size());
  ERR_clear_error();
  return verified == 1 ? trust_status::kSuccess : trust_status::kBadSignature;
}

}  // namespace platform
