#include "platform/linux/LinuxTrustService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "platform/Digest.h"
#include "platform/linux/OpenSslDigestService.h"
#include "platform/testing/SettableClock.h"
#include "platform/testing/TestPki.h"

namespace platform {
namespace {

using testing::CertOptions;
using testing::Identity;
using testing::SettableClock;
using testing::TestPki;

double realNow() {
  return static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count());
}

// A production hierarchy (root, intermediate, signing leaf) and a separate
// development root, with anchor folders for each.
class TrustServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    productionRoot = pki.makeRoot("production-root");
    intermediate = pki.makeIssued("production-ca", productionRoot, CertOptions().ca().days(3650));
    leaf = pki.makeIssued("content-signer", intermediate, CertOptions().usage("digitalSignature"));
    developmentRoot = pki.makeRoot("development-root");
    ASSERT_TRUE(pki.ok());
    folders.production = pki.anchorFolder("production", {productionRoot});
    folders.development = pki.anchorFolder("development", {developmentRoot});
  }

  std::vector<std::shared_ptr<Certificate>> chain(LinuxTrustService& service,
                                                  std::initializer_list<Identity> ids) {
    std::vector<std::shared_ptr<Certificate>> certificates;
    for (const Identity& id : ids) {
      auto cert = service.createCertificate(pki.der(id));
      EXPECT_NE(cert, nullptr) << id.name;
      certificates.push_back(cert);
    }
    return certificates;
  }

  // Evaluates the chain under the production or development policy.
  TrustResult evaluate(LinuxTrustService& service, std::initializer_list<Identity> ids,
                       bool production = true) {
    auto policy = production ? service.createProductionSigningPolicy()
                             : service.createDevelopmentSigningPolicy();
    EXPECT_NE(policy, nullptr);
    if (!policy) return TrustResult::Invalid;
    std::unique_ptr<TrustObject> trust;
    EXPECT_EQ(service.createTrust(chain(service, ids), *policy, trust), trust_status::kSuccess);
    if (!trust) return TrustResult::Invalid;
    TrustResult result = TrustResult::Invalid;
    EXPECT_EQ(service.evaluateTrust(*trust, result), trust_status::kSuccess);
    return result;
  }

  TestPki pki;
  Identity productionRoot, intermediate, leaf, developmentRoot;
  TrustAnchorFolders folders;
};

TEST_F(TrustServiceTest, ChainToTheAnchorIsTrustedOnlyUnderItsOwnPolicy) {
  LinuxTrustService service(folders);
  EXPECT_EQ(evaluate(service, {leaf, intermediate}), TrustResult::Unspecified);
  EXPECT_EQ(evaluate(service, {leaf, intermediate}, false), TrustResult::RecoverableTrustFailure);

  Identity devLeaf = pki.makeIssued("dev-signer", developmentRoot);
  ASSERT_TRUE(pki.ok());
  EXPECT_EQ(evaluate(service, {devLeaf}, false), TrustResult::Unspecified);
  EXPECT_EQ(evaluate(service, {devLeaf}), TrustResult::RecoverableTrustFailure);
}

TEST_F(TrustServiceTest, IntermediatesNeverBecomeRoots) {
  LinuxTrustService service(folders);
  // Without its intermediate the leaf does not reach the anchor.
  EXPECT_EQ(evaluate(service, {leaf}), TrustResult::RecoverableTrustFailure);

  // A whole foreign hierarchy, root included, handed over as intermediates.
  Identity foreignRoot = pki.makeRoot("foreign-root");
  Identity foreignLeaf = pki.makeIssued("foreign-signer", foreignRoot);
  ASSERT_TRUE(pki.ok());
  EXPECT_EQ(evaluate(service, {foreignLeaf, foreignRoot}), TrustResult::RecoverableTrustFailure);
  EXPECT_EQ(evaluate(service, {foreignRoot}), TrustResult::RecoverableTrustFailure);
}

TEST_F(TrustServiceTest, ValidityDatesAreEnforcedAtTheClocksTime) {
  Identity expired = pki.makeIssued("expired-signer", intermediate, CertOptions().days(-1));
  ASSERT_TRUE(pki.ok());
  LinuxTrustService realTime(folders);
  EXPECT_EQ(evaluate(realTime, {expired, intermediate}), TrustResult::RecoverableTrustFailure);

  // The leaf is valid for a year from now.
  SettableClock later(Date{realNow() + 400.0 * 86400});
  LinuxTrustService afterExpiry(folders, &later);
  EXPECT_EQ(evaluate(afterExpiry, {leaf, intermediate}), TrustResult::RecoverableTrustFailure);

  SettableClock earlier(Date{realNow() - 2.0 * 86400});
  LinuxTrustService beforeIssue(folders, &earlier);
  EXPECT_EQ(evaluate(beforeIssue, {leaf, intermediate}), TrustResult::RecoverableTrustFailure);

  SettableClock inside(Date{realNow() + 30.0 * 86400});
  LinuxTrustService withinValidity(folders, &inside);
  EXPECT_EQ(evaluate(withinValidity, {leaf, intermediate}), TrustResult::Unspecified);
}

TEST_F(TrustServiceTest, CaConstraintsAreEnforced) {
  LinuxTrustService service(folders);
  // An end-entity certificate cannot issue.
  Identity notCa = pki.makeIssued("not-a-ca", productionRoot,
                                  CertOptions().usage("digitalSignature,keyCertSign"));
  Identity underNotCa = pki.makeIssued("under-not-a-ca", notCa);
  // A CA limited to issuing leaves cannot issue another CA.
  Identity limited = pki.makeIssued("limited-ca", productionRoot, CertOptions().ca(0));
  Identity subCa = pki.makeIssued("sub-ca", limited, CertOptions().ca());
  Identity deepLeaf = pki.makeIssued("deep-signer", subCa);
  ASSERT_TRUE(pki.ok());
  EXPECT_EQ(evaluate(service, {underNotCa, notCa}), TrustResult::FatalTrustFailure);
  EXPECT_EQ(evaluate(service, {deepLeaf, subCa, limited}), TrustResult::FatalTrustFailure);
}

TEST_F(TrustServiceTest, LeafMustBeAllowedToSign) {
  LinuxTrustService service(folders);
  Identity encipherOnly =
      pki.makeIssued("encipher-only", intermediate, CertOptions().usage("keyEncipherment"));
  Identity serverOnly =
      pki.makeIssued("server-only", intermediate, CertOptions().extendedUsage("serverAuth"));
  Identity codeSigner =
      pki.makeIssued("code-signer", intermediate,
                     CertOptions().usage("digitalSignature").extendedUsage("codeSigning"));
  ASSERT_TRUE(pki.ok());
  EXPECT_EQ(evaluate(service, {encipherOnly, intermediate}), TrustResult::FatalTrustFailure);
  EXPECT_EQ(evaluate(service, {serverOnly, intermediate}), TrustResult::FatalTrustFailure);
  EXPECT_EQ(evaluate(service, {codeSigner, intermediate}), TrustResult::Unspecified);
}

TEST_F(TrustServiceTest, AnchorFolderRules) {
  // An intermediate placed as an anchor roots the policy by itself.
  TrustAnchorFolders partial = folders;
  partial.production = pki.anchorFolder("intermediate-only", {intermediate});
  LinuxTrustService service(partial);
  EXPECT_EQ(evaluate(service, {leaf}), TrustResult::Unspecified);

  // Stray files do not spoil the folder; only "*.pem" files count.
  std::string mixed = pki.anchorFolder("mixed", {});
  pki.writeFile(mixed + "/0-garbage.pem", {'n', 'o', 'p', 'e'});
  std::filesystem::copy_file(productionRoot.certPath, mixed + "/root.crt");
  TrustAnchorFolders onlyStray{mixed, mixed};
  LinuxTrustService stray(onlyStray);
  EXPECT_EQ(stray.createProductionSigningPolicy(), nullptr);
  std::filesystem::copy_file(productionRoot.certPath, mixed + "/root.pem");
  EXPECT_EQ(evaluate(stray, {leaf, intermediate}), TrustResult::Unspecified);

  // One file may hold several anchors.
  std::string bundle = pki.chainFile("bundle.pem", {developmentRoot, productionRoot});
  std::string bundleFolder = pki.anchorFolder("bundle", {});
  std::filesystem::rename(bundle, bundleFolder + "/bundle.pem");
  LinuxTrustService bundled({bundleFolder, bundleFolder});
  EXPECT_EQ(evaluate(bundled, {leaf, intermediate}), TrustResult::Unspecified);

  LinuxTrustService missing({pki.folder() + "/absent", pki.folder() + "/absent"});
  EXPECT_EQ(missing.createProductionSigningPolicy(), nullptr);
  EXPECT_EQ(missing.createDevelopmentSigningPolicy(), nullptr);
}

TEST_F(TrustServiceTest, CertificateDecodingIsStrict) {
  LinuxTrustService service(folders);
  std::vector<std::uint8_t> der = pki.der(leaf);
  ASSERT_FALSE(der.empty());
  EXPECT_NE(service.createCertificate(der), nullptr);
  EXPECT_EQ(service.createCertificate({}), nullptr);
  EXPECT_EQ(service.createCertificate(TestPki::readFile(leaf.certPath)), nullptr);  // PEM text
  std::vector<std::uint8_t> trailing = der;
  trailing.push_back(0);
  EXPECT_EQ(service.createCertificate(trailing), nullptr);
  std::vector<std::uint8_t> truncated(der.begin(), der.end() - 1);
  EXPECT_EQ(service.createCertificate(truncated), nullptr);
}

TEST_F(TrustServiceTest, TrustOutlivesItsPolicyAndCertificates) {
  LinuxTrustService service(folders);
  std::unique_ptr<TrustObject> trust;
  {
    auto policy = service.createProductionSigningPolicy();
    ASSERT_NE(policy, nullptr);
    ASSERT_EQ(service.createTrust(chain(service, {leaf, intermediate}), *policy, trust),
              trust_status::kSuccess);
  }
  TrustResult result = TrustResult::Invalid;
  ASSERT_EQ(service.evaluateTrust(*trust, result), trust_status::kSuccess);
  EXPECT_EQ(result, TrustResult::Unspecified);
  EXPECT_NE(service.copyPublicKey(*trust), nullptr);

  auto policy = service.createProductionSigningPolicy();
  std::unique_ptr<TrustObject> none;
  EXPECT_EQ(service.createTrust({}, *policy, none), trust_status::kBadParameter);
  EXPECT_EQ(none, nullptr);
}

// Signatures from the openssl command verify against the leaf's key; any
// change to digest or signature does not.
class RsaVerifyTest : public TrustServiceTest {
 protected:
  std::unique_ptr<PublicKey> keyOf(LinuxTrustService& service, const Identity& id) {
    auto policy = service.createProductionSigningPolicy();
    std::unique_ptr<TrustObject> trust;
    EXPECT_EQ(service.createTrust(chain(service, {id}), *policy, trust), trust_status::kSuccess);
    return trust ? service.copyPublicKey(*trust) : nullptr;
  }
  static Data sha1Of(const Data& bytes) {
    OpenSslDigestService digests;
    return sha1(digests, bytes);
  }
  std::vector<std::uint8_t> payload{'d', 'e', 'm', 'o', ' ', 'c', 'o', 'n', 't', 'e', 'n', 't'};
};

TEST_F(RsaVerifyTest, OpensslSignaturesVerifyOnlyUnalteredAndUnderTheSignersKey) {
  LinuxTrustService service(folders);
  Identity other = pki.makeIssued("other-signer", intermediate);
  Identity big = pki.makeIssued("big-signer", intermediate, CertOptions().bits(3072));
  ASSERT_TRUE(pki.ok());
  auto key = keyOf(service, leaf);
  ASSERT_NE(key, nullptr);
  std::vector<std::uint8_t> signature = pki.signSha1(leaf, payload);
  ASSERT_EQ(signature.size(), 128u);
  Data digest = sha1Of(payload);
  EXPECT_EQ(service.verifyPkcs1Sha1(*key, digest, signature), trust_status::kSuccess);

  Data otherDigest = digest;
  otherDigest[19] ^= 1;
  EXPECT_EQ(service.verifyPkcs1Sha1(*key, otherDigest, signature), trust_status::kBadSignature);
  std::vector<std::uint8_t> flipped = signature;
  flipped[0] ^= 0x80;
  EXPECT_EQ(service.verifyPkcs1Sha1(*key, digest, flipped), trust_status::kBadSignature);
  std::vector<std::uint8_t> shorter(signature.begin(), signature.end() - 1);
  EXPECT_EQ(service.verifyPkcs1Sha1(*key, digest, shorter), trust_status::kBadSignature);
  EXPECT_EQ(service.verifyPkcs1Sha1(*key, digest, {}), trust_status::kBadSignature);
  EXPECT_EQ(service.verifyPkcs1Sha1(*key, std::span(digest).first(19), signature),
            trust_status::kBadParameter);
  EXPECT_EQ(service.verifyPkcs1Sha1(*key, digest, pki.signSha1(other, payload)),
            trust_status::kBadSignature);

  // The signature's length follows the key.
  auto bigKey = keyOf(service, big);
  ASSERT_NE(bigKey, nullptr);
  std::vector<std::uint8_t> bigSignature = pki.signSha1(big, payload);
  EXPECT_EQ(bigSignature.size(), 384u);
  EXPECT_EQ(service.verifyPkcs1Sha1(*bigKey, digest, bigSignature), trust_status::kSuccess);
}

}  // namespace
}  // namespace platform
