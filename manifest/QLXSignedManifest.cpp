#include "manifest/QLXSignedManifest.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>
#include <vector>

#include "logging/QLXHLog.h"
#include "platform/DeviceProperties.h"
#include "platform/Digest.h"
#include "platform/InputStream.h"
#include "platform/Platform.h"
#include "platform/PropertyList.h"
#include "platform/TrustService.h"

namespace {

constexpr const char* kInitMethod = "-[QLXSignedManifest initWithNSStream:]";
constexpr const char* kVerifyMethod = "-[QLXSignedManifest verifyManifestSignature:]";
constexpr const char* kStrongMethod = "-[QLXSignedManifest createPublicKeyForStrongSigning:]";
constexpr const char* kDevelopmentMethod =
    "-[QLXSignedManifest createPublicKeyForDevelopmentSigningStandard:]";
constexpr const char* kCreateKeyMethod = "-[QLXSignedManifest createPublicKey:usingPolicy:]";
constexpr const char* kCreateKeyBlock =
    "__49-[QLXSignedManifest createPublicKey:usingPolicy:]_block_invoke";

constexpr const char* kCannotConvert = "%s: Cannot convert to property list - %@(0x%x).";
constexpr const char* kVersionNotFound = "%s: required key (version) not found.";
constexpr const char* kCertificateNotValid = "%s: Certificate not valid.";
constexpr const char* kCannotCreatePolicy = "%s: Cannot create policy.";

constexpr std::int64_t kEnvelopeVersion = 2;
constexpr std::int64_t kOldestPayloadVersion = 3;
constexpr std::int64_t kNewestPayloadVersion = 4;

}  // namespace

QLXSignedManifest::QLXSignedManifest(platform::Platform& platform) : platform_(platform) {}

QLXSignedManifest::~QLXSignedManifest() { setPayload(std::nullopt); }

std::unique_ptr<QLXSignedManifest> QLXSignedManifest::signedManifestWithNSStream(
    platform::InputStream& stream, platform::Platform& platform) {
  auto manifest = std::make_unique<QLXSignedManifest>(platform);
  if (!manifest->initWithNSStream(stream)) return nullptr;
  return manifest;
}

bool QLXSignedManifest::initWithNSStream(platform::InputStream& stream) {
  platform::Result<platform::Data> bytes = stream.readAll(kMaxManifestBytes);
  platform::Result<platform::Value> outerValue =
      bytes ? platform::parsePropertyList(*bytes)
            : platform::Result<platform::Value>(bytes.error());
  if (!outerValue) {
    QLXHLog(kCannotConvert, kInitMethod, outerValue.error(), outerValue.error().code);
    return false;
  }
  const platform::Dictionary* outer = outerValue->dictionary();
  if (outer == nullptr) {
    QLXHLog("%s: format not correct.", kInitMethod);
    return false;
  }

  const platform::Value* version = outer->find("Version");
  if (version == nullptr) {
    QLXHLog(kVersionNotFound, kInitMethod);
    return false;
  }
  if (version->int64Value() != kEnvelopeVersion) {
    QLXHLog("%s: signed manifest version %d is not supported yet", kInitMethod,
            version->int64Value());
    return false;
  }

  if (!verifyManifestSignature(*outer)) return false;
  QLXHLog("Manifest passed signature check.");

  const platform::Value* payloadValue = outer->find("Payload");
  if (payloadValue == nullptr) {
    // The text names an object it is never given; it prints as nothing.
    QLXHLog("%s: required key (payload) not found: %@", kInitMethod);
    return false;
  }
  static const platform::Data kNoBytes;
  const platform::Data& payloadBytes = payloadValue->data() ? *payloadValue->data() : kNoBytes;
  platform::Result<platform::Value> parsed = platform::parsePropertyList(payloadBytes);
  if (!parsed) {
    QLXHLog(kCannotConvert, kInitMethod, parsed.error(), parsed.error().code);
    return false;
  }
  platform::Dictionary* payload = parsed->dictionary();
  if (payload == nullptr) {
    QLXHLog("%s: payload format not correct.", kInitMethod);
    return false;
  }

  const platform::Value* payloadVersion = payload->find("Version");
  if (payloadVersion == nullptr) {
    QLXHLog(kVersionNotFound, kInitMethod);
    return false;
  }
  std::int64_t number = payloadVersion->int64Value();
  if (number < kOldestPayloadVersion || number > kNewestPayloadVersion) {
    QLXHLog("%s: raw manifest version %@ is not supported.", kInitMethod, *payloadVersion);
    return false;
  }
  for (const char* required : {"Info", "Backup", "App", "AppData"}) {
    if (!payload->contains(required)) {
      QLXHLog("%s: required key (Info, App, AppData, or Manifest) not found: %@", kInitMethod);
      return false;
    }
  }
  setPayload(std::move(*payload));
  return true;
}

std::optional<platform::Data> QLXSignedManifest::verifyManifestSignature(
    const platform::Dictionary& outer) {
  const platform::Value* certificates = outer.find("Certificate");
  if (certificates == nullptr || certificates->array() == nullptr) {
    QLXHLog("%s: cannot find certificates, or certificate format not correct.", kVerifyMethod);
    return std::nullopt;
  }

  std::unique_ptr<platform::PublicKey> key =
      createPublicKeyForStrongSigning(*certificates->array());
  if (!key) {
    QLXHDebugLog("Failed in strong signing verification.");
    // Devices with the signing fuse set accept production-signed content only;
    // a device that cannot answer is treated as one of them.
    std::optional<platform::Value> fuse;
    if (platform_.deviceProperties != nullptr)
      fuse = platform_.deviceProperties->copyAnswer("SigningFuse");
    if (!fuse || !fuse->isNumber() || fuse->boolValue()) {
      QLXHLog(kCertificateNotValid, kVerifyMethod);
      return std::nullopt;
    }
    QLXHDebugLog("Trying development signing on development hardware...");
    key = createPublicKeyForDevelopmentSigning(*certificates->array());
    if (!key) {
      QLXHLog(kCertificateNotValid, kVerifyMethod);
      return std::nullopt;
    }
  }

  const platform::Value* payload = outer.find("Payload");
  if (payload == nullptr || payload->data() == nullptr) {
    QLXHLog("%s: Manifest format not correct.", kVerifyMethod);
    return std::nullopt;
  }
  const platform::Value* signature = outer.find("Signature");
  if (!verifySignature(signature ? *signature : platform::Value(), *payload->data(), *key))
    return std::nullopt;
  return *payload->data();
}

std::unique_ptr<platform::PublicKey> QLXSignedManifest::createPublicKeyForStrongSigning(
    const platform::Array& certificates) {
  std::unique_ptr<platform::TrustPolicy> policy;
  if (platform_.trust != nullptr) policy = platform_.trust->createProductionSigningPolicy();
  if (!policy) {
    QLXHLog(kCannotCreatePolicy, kStrongMethod);
    return nullptr;
  }
  QLXHLog("Verifing strong signing");
  return createPublicKey(certificates, std::move(policy));
}

std::unique_ptr<platform::PublicKey> QLXSignedManifest::createPublicKeyForDevelopmentSigning(
    const platform::Array& certificates) {
  QLXHLog("Verifing development signing");
  return createPublicKeyForDevelopmentSigningStandard(certificates);
}

std::unique_ptr<platform::PublicKey>
QLXSignedManifest::createPublicKeyForDevelopmentSigningStandard(
    const platform::Array& certificates) {
  std::unique_ptr<platform::TrustPolicy> policy;
  if (platform_.trust != nullptr) policy = platform_.trust->createDevelopmentSigningPolicy();
  if (!policy) {
    QLXHLog(kCannotCreatePolicy, kDevelopmentMethod);
    return nullptr;
  }
  return createPublicKey(certificates, std::move(policy));
}

std::unique_ptr<platform::PublicKey> QLXSignedManifest::createPublicKey(
    const platform::Array& certificates, std::unique_ptr<platform::TrustPolicy> policy) {
  // The policy is released when this returns, whatever the outcome.
  platform::TrustService& trustService = *platform_.trust;

  std::vector<std::shared_ptr<platform::Certificate>> chain;
  chain.reserve(certificates.size());
  for (const platform::Value& element : certificates) {
    std::shared_ptr<platform::Certificate> certificate;
    if (const platform::Data* der = element.data())
      certificate = trustService.createCertificate(*der);
    if (!certificate) {
      QLXHLog("%s: Cannot load certificate.", kCreateKeyBlock);
      return nullptr;
    }
    chain.push_back(std::move(certificate));
  }

  std::unique_ptr<platform::TrustObject> trust;
  platform::TrustStatus status = trustService.createTrust(std::move(chain), *policy, trust);
  if (status != platform::trust_status::kSuccess || !trust) {
    QLXHLog("%s: Cannot create secure trust object: %ld", kCreateKeyMethod, status);
    return nullptr;
  }
  platform::TrustResult result = platform::TrustResult::Invalid;
  status = trustService.evaluateTrust(*trust, result);
  if (status != platform::trust_status::kSuccess) {
    QLXHLog("%s: Cannot evaluate trust: %ld", kCreateKeyMethod, status);
    return nullptr;
  }
  if (result != platform::TrustResult::Proceed && result != platform::TrustResult::Unspecified) {
    QLXHLog("%s: certificate trust evaluation failed: %ld", kCreateKeyMethod,
            static_cast<long>(result));
    return nullptr;
  }
  std::unique_ptr<platform::PublicKey> key = trustService.copyPublicKey(*trust);
  if (!key) {
    QLXHLog("%s: Cannot extract public key.", kCreateKeyMethod);
    return nullptr;
  }
  return key;
}

bool QLXSignedManifest::verifySignature(const platform::Value& signature,
                                        const platform::Data& data,
                                        const platform::PublicKey& key) {
  QLXHDebugLog("verifySignature is called");
  // A digest that cannot be computed stays zero and matches no signature.
  std::array<std::uint8_t, 20> digest{};
  if (platform_.digests != nullptr) {
    platform::Data computed = platform::sha1(*platform_.digests, data);
    if (computed.size() == digest.size())
      std::copy(computed.begin(), computed.end(), digest.begin());
  }
  static const platform::Data kNoSignature;
  const platform::Data& signatureBytes = signature.data() ? *signature.data() : kNoSignature;
  platform::TrustStatus status = platform_.trust->verifyPkcs1Sha1(key, digest, signatureBytes);
  if (status != platform::trust_status::kSuccess) {
    QLXHDebugLog("%s: Failed in verifying signature(%ld)",
                 "-[QLXSignedManifest verifySignature:forData:withKey:]", status);
    return false;
  }
  return true;
}

std::int64_t QLXSignedManifest::getVersion() const {
  if (!payload_) return 0;
  const platform::Value* version = payload_->find("Version");
  return version && version->isNumber() ? version->int64Value() : 0;
}

const platform::Dictionary* QLXSignedManifest::dictionaryFor(const char* key) const {
  if (!payload_) return nullptr;
  const platform::Value* value = payload_->find(key);
  return value ? value->dictionary() : nullptr;
}

const platform::Dictionary* QLXSignedManifest::getInfo() const { return dictionaryFor("Info"); }

const platform::Value* QLXSignedManifest::getAppList() const {
  return payload_ ? payload_->find("App") : nullptr;
}

const platform::Dictionary* QLXSignedManifest::getAppDataList() const {
  return dictionaryFor("AppData");
}

const platform::Dictionary* QLXSignedManifest::getGroupDataList() const {
  return dictionaryFor("GroupData");
}

const platform::Dictionary* QLXSignedManifest::getPlugInDataList() const {
  return dictionaryFor("ExtensionData");
}

const platform::Dictionary* QLXSignedManifest::getManifest() const {
  return dictionaryFor("Backup");
}
