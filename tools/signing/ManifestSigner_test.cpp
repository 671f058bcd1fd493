#include "tools/signing/ManifestSigner.h"

#include <gtest/gtest.h>

#include "manifest/QLXSignedManifest.h"
#include "platform/InputStream.h"
#include "platform/testing/TestContentSigners.h"

namespace signing {
namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;
using platform::testing::TestContentSigners;
using platform::testing::TestPki;

class ManifestSignerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(signers.ok());
    chain = signers.pki.chainFile("chain.pem", {signers.productionSigner, signers.productionCa});
  }
  TestContentSigners signers;
  std::string chain;
};

TEST_F(ManifestSignerTest, EnvelopeVerifiesWithOpensslAndWithTheService) {
  auto signer = ManifestSigner::load(signers.productionSigner.keyPath, chain);
  ASSERT_TRUE(signer.ok()) << signer.error().description;
  ASSERT_EQ((*signer)->chain().size(), 2u);
  EXPECT_EQ((*signer)->chain()[0], signers.pki.der(signers.productionSigner));  // leaf first
  EXPECT_EQ((*signer)->chain()[1], signers.pki.der(signers.productionCa));

  Data payload = TestContentSigners::encode(TestContentSigners::samplePayload());
  auto outer = (*signer)->envelope(payload);
  ASSERT_TRUE(outer.ok());
  const Data* signature = outer->find("Signature")->data();
  ASSERT_NE(signature, nullptr);
  EXPECT_EQ(signature->size(), 128u);
  EXPECT_TRUE(signers.pki.verifySha1(signers.productionSigner, payload, *signature));
  EXPECT_EQ(*outer->find("Payload")->data(), payload);
  EXPECT_EQ(outer->find("Version")->int64Value(), 2);

  platform::DataInputStream stream(TestContentSigners::encode(*outer));
  EXPECT_NE(QLXSignedManifest::signedManifestWithNSStream(stream, signers.platform), nullptr);
}

TEST_F(ManifestSignerTest, RefusesKeysThatCannotMakeAcceptedContent) {
  // Not the leaf's key.
  auto mismatched = ManifestSigner::load(signers.productionCa.keyPath, chain);
  ASSERT_FALSE(mismatched.ok());
  EXPECT_NE(mismatched.error().description.find("does not belong"), std::string::npos);

  // Not RSA.
  std::string ecKey = signers.pki.folder() + "/ec.key";
  ASSERT_TRUE(
      TestPki::run("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + ecKey));
  EXPECT_FALSE(ManifestSigner::load(ecKey, chain).ok());

  // No certificates, no key, no files.
  std::string empty = signers.pki.writeFile("empty.pem", {});
  EXPECT_FALSE(ManifestSigner::load(signers.productionSigner.keyPath, empty).ok());
  EXPECT_FALSE(ManifestSigner::load(empty, chain).ok());
  EXPECT_FALSE(ManifestSigner::load(signers.pki.folder() + "/absent.key", chain).ok());
}

TEST(CheckPayloadTest, RefusesWhatTheDeviceWouldRefuse) {
  Dictionary good = TestContentSigners::samplePayload(3);
  EXPECT_TRUE(checkPayload(TestContentSigners::encode(good)).ok());
  good.erase("GroupData");
  good.erase("ExtensionData");
  EXPECT_TRUE(checkPayload(TestContentSigners::encode(good)).ok());

  for (std::int64_t version : {2, 5}) {
    EXPECT_FALSE(
        checkPayload(TestContentSigners::encode(TestContentSigners::samplePayload(version))).ok());
  }
  Dictionary noBackup = TestContentSigners::samplePayload();
  noBackup.erase("Backup");
  EXPECT_FALSE(checkPayload(TestContentSigners::encode(noBackup)).ok());
  Dictionary textVersion = TestContentSigners::samplePayload();
  textVersion.set("Version", Value("4"));
  EXPECT_FALSE(checkPayload(TestContentSigners::encode(textVersion)).ok());
  EXPECT_FALSE(checkPayload(Data{'x'}).ok());
}

}  // namespace
}  // namespace signing
