#include "tools/signing/ManifestSigner.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "platform/PropertyList.h"
#include "platform/linux/OpenSslHandles.h"
#include "platform/linux/TrustAnchors.h"

namespace signing {

namespace {

platform::Error failure(const std::string& what) {
  unsigned long code = ERR_get_error();
  std::string description = what;
  if (code != 0) {
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    description += ": ";
    description += text;
  }
  ERR_clear_error();
  return platform::Error{"ManifestSigner", static_cast<std::int64_t>(code), description};
}

platform::Result<std::string> readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return platform::Error::posix(errno ? errno : ENOENT, "Cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

struct ManifestSigner::Key {
  platform::ossl::EvpPkeyPtr pkey;
};

ManifestSigner::ManifestSigner(std::unique_ptr<Key> key, std::vector<platform::Data> chain)
    : key_(std::move(key)), chain_(std::move(chain)) {}

ManifestSigner::~ManifestSigner() = default;

platform::Result<std::unique_ptr<ManifestSigner>> ManifestSigner::load(
    const std::string& keyPath, const std::string& chainPath) {
  auto keyText = readText(keyPath);
  if (!keyText) return keyText.error();
  auto chainText = readText(chainPath);
  if (!chainText) return chainText.error();

  platform::ossl::BioPtr bio(BIO_new_mem_buf(keyText->data(), static_cast<int>(keyText->size())));
  auto key = std::make_unique<Key>();
  if (bio) key->pkey.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  if (!key->pkey) return failure("No PEM private key in " + keyPath);
  if (EVP_PKEY_get_base_id(key->pkey.get()) != EVP_PKEY_RSA)
    return failure("The key in " + keyPath + " is not an RSA key");

  std::vector<platform::ossl::X509Ptr> certificates =
      platform::ossl::readPemCertificates(*chainText);
  if (certificates.empty()) return failure("No PEM certificate in " + chainPath);
  // Signing with a key the leaf does not carry would make content no device accepts.
  if (X509_check_private_key(certificates.front().get(), key->pkey.get()) != 1)
    return failure("The key does not belong to the first certificate of " + chainPath);

  std::vector<platform::Data> chain;
  for (const auto& certificate : certificates) {
    unsigned char* der = nullptr;
    int length = i2d_X509(certificate.get(), &der);
    if (length <= 0) return failure("Cannot encode a certificate of " + chainPath);
    chain.emplace_back(der, der + length);
    OPENSSL_free(der);
  }
  return std::unique_ptr<ManifestSigner>(new ManifestSigner(std::move(key), std::move(chain)));
}

platform::Result<platform::Data> ManifestSigner::sign(std::span<const std::uint8_t> payload) const {
  platform::ossl::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  EVP_PKEY_CTX* keyCtx = nullptr;  // owned by ctx
  if (!ctx || EVP_DigestSignInit(ctx.get(), &keyCtx, EVP_sha1(), nullptr, key_->pkey.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(keyCtx, RSA_PKCS1_PADDING) != 1)
    return failure("Cannot start signing");
  std::size_t length = 0;
  if (EVP_DigestSign(ctx.get(), nullptr, &length, payload.data(), payload.size()) != 1)
    return failure("Cannot size the signature");
  platform::Data signature(length);
  if (EVP_DigestSign(ctx.get(), signature.data(), &length, payload.data(), payload.size()) != 1)
    return failure("Cannot sign");
  signature.resize(length);
  return signature;
}

platform::Result<platform::Dictionary> ManifestSigner::envelope(
    const platform::Data& payload) const {
  auto signature = sign(payload);
  if (!signature) return signature.error();
  platform::Array certificates;
  for (const platform::Data& der : chain_) certificates.emplace_back(der);
  platform::Dictionary outer;
  outer.set("Version", platform::Value(2));
  outer.set("Certificate", platform::Value(std::move(certificates)));
  outer.set("Payload", platform::Value(payload));
  outer.set("Signature", platform::Value(std::move(*signature)));
  return outer;
}

platform::Status checkPayload(std::span<const std::uint8_t> payload) {
  auto parsed = platform::parsePropertyList(payload);
  if (!parsed) return parsed.error();
  const platform::Dictionary* dictionary = parsed->dictionary();
  if (dictionary == nullptr)
    return platform::Error{"ManifestSigner", EINVAL, "The payload is not a dictionary"};
  const platform::Value* version = dictionary->find("Version");
  if (version == nullptr || !version->isNumber() || version->int64Value() < 3 ||
      version->int64Value() > 4)
    return platform::Error{"ManifestSigner", EINVAL, "The payload's \"Version\" must be 3 or 4"};
  for (const char* key : {"Info", "Backup", "App", "AppData"}) {
    if (!dictionary->contains(key))
      return platform::Error{"ManifestSigner", EINVAL,
                             std::string("The payload has no \"") + key + "\""};
  }
  return {};
}

}  // namespace signing
