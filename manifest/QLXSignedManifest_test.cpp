#include "manifest/QLXSignedManifest.h"

#include <gtest/gtest.h>

#include "platform/InputStream.h"
#include "platform/PropertyList.h"
#include "platform/testing/LogCapture.h"
#include "platform/testing/TestContentSigners.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;
using platform::testing::CertOptions;
using platform::testing::Identity;
using platform::testing::TestContentSigners;

const std::string kInit = "-[QLXSignedManifest initWithNSStream:]: ";
const std::string kVerify = "-[QLXSignedManifest verifyManifestSignature:]: ";
const std::string kCreateKey = "-[QLXSignedManifest createPublicKey:usingPolicy:]: ";
const std::string kNotValid = kVerify + "Certificate not valid.";
const std::string kUntrusted = kCreateKey + "certificate trust evaluation failed: 5";

class SignedManifestTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(signers.ok()); }

  // Reads an envelope as the service does, keeping the log of the attempt.
  std::unique_ptr<QLXSignedManifest> read(const Dictionary& outer) {
    return readBytes(TestContentSigners::encode(outer));
  }
  std::unique_ptr<QLXSignedManifest> readBytes(Data bytes) {
    platform::DataInputStream stream(std::move(bytes));
    platform::testing::LogCapture capture;
    auto manifest = QLXSignedManifest::signedManifestWithNSStream(stream, signers.platform);
    logged = capture.messages();
    return manifest;
  }
  Data payload(std::int64_t version = 4) {
    return TestContentSigners::encode(TestContentSigners::samplePayload(version));
  }

  TestContentSigners signers;
  std::string lastLogged() const { return logged.empty() ? std::string() : logged.back(); }

  std::vector<std::string> logged;  // what the last read logged
};

// Signing policies and the fuse.

TEST_F(SignedManifestTest, ProductionSignedManifestPassesOnAnyDevice) {
  for (std::optional<int> fuse :
       {std::optional<int>(), std::optional<int>(1), std::optional<int>(0)}) {
    signers.setFuse(fuse);
    auto manifest = read(signers.productionEnvelope(payload()));
    ASSERT_NE(manifest, nullptr) << lastLogged();
    EXPECT_EQ(logged, (std::vector<std::string>{"Verifing strong signing",
                                                "Manifest passed signature check."}));
  }
}

TEST_F(SignedManifestTest, DevelopmentSignedManifestPassesOnlyWhenTheFuseReadsZero) {
  Data bytes = payload();
  signers.setFuse(0);
  auto manifest = read(signers.developmentEnvelope(bytes));
  ASSERT_NE(manifest, nullptr) << lastLogged();
  EXPECT_EQ(logged, (std::vector<std::string>{"Verifing strong signing", kUntrusted,
                                              "Verifing development signing",
                                              "Manifest passed signature check."}));

  for (std::optional<int> fuse : {std::optional<int>(), std::optional<int>(1)}) {
    signers.setFuse(fuse);
    EXPECT_EQ(read(signers.developmentEnvelope(bytes)), nullptr);
    EXPECT_EQ(logged, (std::vector<std::string>{"Verifing strong signing", kUntrusted, kNotValid}));
  }
}

TEST_F(SignedManifestTest, UntrustedChainsFailOnEitherPolicy) {
  signers.setFuse(0);
  Identity expired =
      signers.pki.makeIssued("expired-signer", signers.productionCa, CertOptions().days(-1));
  Identity foreignRoot = signers.pki.makeRoot("foreign-root");
  Identity foreignSigner = signers.pki.makeIssued("foreign-signer", foreignRoot);
  ASSERT_TRUE(signers.ok());
  Data bytes = payload();
  for (const auto& outer :
       {signers.envelope(bytes, expired, {expired, signers.productionCa}),
        signers.envelope(bytes, foreignSigner, {foreignSigner, foreignRoot}),
        // Without the intermediate the production leaf reaches no anchor.
        signers.envelope(bytes, signers.productionSigner, {signers.productionSigner})}) {
    EXPECT_EQ(read(outer), nullptr);
    EXPECT_EQ(logged,
              (std::vector<std::string>{"Verifing strong signing", kUntrusted,
                                        "Verifing development signing", kUntrusted, kNotValid}));
  }
}

TEST_F(SignedManifestTest, MissingAnchorsCannotMakeAPolicy) {
  platform::LinuxTrustService noAnchors(
      {signers.pki.folder() + "/none", signers.pki.folder() + "/none"});
  signers.platform.trust = &noAnchors;
  signers.setFuse(0);
  EXPECT_EQ(read(signers.productionEnvelope(payload())), nullptr);
  EXPECT_EQ(logged,
            (std::vector<std::string>{
                "-[QLXSignedManifest createPublicKeyForStrongSigning:]: Cannot create policy.",
                "Verifing development signing",
                "-[QLXSignedManifest createPublicKeyForDevelopmentSigningStandard:]: Cannot create "
                "policy.",
                kNotValid}));
}

// The signature covers the exact payload bytes.

TEST_F(SignedManifestTest, AlteredPayloadOrForeignSignatureFailsSilently) {
  signers.setFuse(1);
  Dictionary outer = signers.productionEnvelope(payload());
  Dictionary altered = outer;
  Data flipped = *outer.find("Payload")->data();
  flipped[10] ^= 0x01;
  altered.set("Payload", Value(flipped));
  Identity other = signers.pki.makeIssued("other-signer", signers.productionCa);
  ASSERT_TRUE(signers.ok());
  Dictionary foreign = outer;
  foreign.set("Signature", Value(signers.pki.signSha1(other, *outer.find("Payload")->data())));
  Dictionary unsigned_ = outer;
  unsigned_.erase("Signature");
  Dictionary textSignature = outer;
  textSignature.set("Signature", Value("signed"));

  for (const Dictionary& bad : {altered, foreign, unsigned_, textSignature}) {
    EXPECT_EQ(read(bad), nullptr);
    // A bad signature has no message of its own.
    EXPECT_EQ(logged, std::vector<std::string>{"Verifing strong signing"});
  }
}

TEST_F(SignedManifestTest, SignatureIsCheckedBeforeThePayloadIsParsed) {
  Data garbage = {'n', 'o', 't', ' ', 'a', ' ', 'p', 'l', 'i', 's', 't'};
  EXPECT_EQ(read(signers.productionEnvelope(garbage)), nullptr);
  ASSERT_EQ(logged.size(), 3u);
  EXPECT_EQ(logged[1], "Manifest passed signature check.");
  EXPECT_TRUE(lastLogged().starts_with(kInit + "Cannot convert to property list - "));
  EXPECT_TRUE(lastLogged().ends_with(")."));

  auto arrayBytes = platform::writeBinaryPropertyList(Value(platform::Array{Value(1)}));
  ASSERT_TRUE(arrayBytes.ok());
  EXPECT_EQ(read(signers.productionEnvelope(*arrayBytes)), nullptr);
  EXPECT_EQ(lastLogged(), kInit + "payload format not correct.");
}

// The envelope.

TEST_F(SignedManifestTest, EnvelopeMustBeAVersionTwoDictionary) {
  Dictionary outer = signers.productionEnvelope(payload());
  for (int version : {1, 3, 0, -2}) {
    Dictionary other = outer;
    other.set("Version", Value(version));
    EXPECT_EQ(read(other), nullptr);
    EXPECT_EQ(logged, std::vector<std::string>{kInit + "signed manifest version " +
                                               std::to_string(version) + " is not supported yet"});
  }
  Dictionary noVersion = outer;
  noVersion.erase("Version");
  EXPECT_EQ(read(noVersion), nullptr);
  EXPECT_EQ(logged, std::vector<std::string>{kInit + "required key (version) not found."});

  auto array = platform::writeBinaryPropertyList(Value(platform::Array{Value(outer)}));
  ASSERT_TRUE(array.ok());
  EXPECT_EQ(readBytes(*array), nullptr);
  EXPECT_EQ(logged, std::vector<std::string>{kInit + "format not correct."});

  EXPECT_EQ(readBytes({'{', '{', '{'}), nullptr);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_TRUE(lastLogged().starts_with(kInit + "Cannot convert to property list - "));
}

TEST_F(SignedManifestTest, CertificateMustBeAnArrayOfDerCertificates) {
  Dictionary outer = signers.productionEnvelope(payload());
  Dictionary single = outer;
  single.set("Certificate", Value(signers.pki.der(signers.productionSigner)));
  EXPECT_EQ(read(single), nullptr);
  EXPECT_EQ(logged, std::vector<std::string>{
                        kVerify + "cannot find certificates, or certificate format not correct."});

  Dictionary absent = outer;
  absent.erase("Certificate");
  EXPECT_EQ(read(absent), nullptr);
  EXPECT_EQ(lastLogged(), kVerify + "cannot find certificates, or certificate format not correct.");

  // A chain element that is not a certificate stops the chain at once.
  Dictionary undecodable = outer;
  undecodable.find("Certificate")->array()->push_back(Value("intermediate"));
  signers.setFuse(1);
  EXPECT_EQ(read(undecodable), nullptr);
  EXPECT_EQ(logged,
            (std::vector<std::string>{
                "Verifing strong signing",
                "__49-[QLXSignedManifest createPublicKey:usingPolicy:]_block_invoke: Cannot load "
                "certificate.",
                kNotValid}));

  Dictionary empty = outer;
  empty.set("Certificate", Value(platform::Array{}));
  EXPECT_EQ(read(empty), nullptr);
  EXPECT_EQ(logged, (std::vector<std::string>{"Verifing strong signing",
                                              kCreateKey + "Cannot create secure trust object: -1",
                                              kNotValid}));
}

TEST_F(SignedManifestTest, PayloadMustBeData) {
  Dictionary outer = signers.productionEnvelope(payload());
  for (const Value& payloadValue : {Value("payload"), Value()}) {
    Dictionary other = outer;
    if (payloadValue.isNull()) {
      other.erase("Payload");
    } else {
      other.set("Payload", payloadValue);
    }
    EXPECT_EQ(read(other), nullptr);
    EXPECT_EQ(logged, (std::vector<std::string>{"Verifing strong signing",
                                                kVerify + "Manifest format not correct."}));
  }
}

// The payload.

TEST_F(SignedManifestTest, PayloadVersionThreeAndFourOnly) {
  for (std::int64_t version : {3, 4}) {
    auto manifest = read(signers.productionEnvelope(payload(version)));
    ASSERT_NE(manifest, nullptr) << lastLogged();
    EXPECT_EQ(manifest->getVersion(), version);
  }
  for (std::int64_t version : {2, 5}) {
    EXPECT_EQ(read(signers.productionEnvelope(payload(version))), nullptr);
    EXPECT_EQ(lastLogged(),
              kInit + "raw manifest version " + std::to_string(version) + " is not supported.");
  }
  Dictionary noVersion = TestContentSigners::samplePayload();
  noVersion.erase("Version");
  EXPECT_EQ(read(signers.productionEnvelope(TestContentSigners::encode(noVersion))), nullptr);
  EXPECT_EQ(lastLogged(), kInit + "required key (version) not found.");
}

TEST_F(SignedManifestTest, FourKeysAreRequiredAndTheMessageNamesManifest) {
  for (const char* key : {"Info", "Backup", "App", "AppData"}) {
    Dictionary lacking = TestContentSigners::samplePayload();
    lacking.erase(key);
    EXPECT_EQ(read(signers.productionEnvelope(TestContentSigners::encode(lacking))), nullptr);
    // The text's "%@" is never given an argument and prints as nothing.
    EXPECT_EQ(lastLogged(), kInit + "required key (Info, App, AppData, or Manifest) not found: ")
        << key;
  }
}

TEST_F(SignedManifestTest, OptionalOrMistypedPartsReadAsAbsent) {
  Dictionary minimal = TestContentSigners::samplePayload(3);
  minimal.erase("GroupData");
  minimal.erase("ExtensionData");
  minimal.set("Info", Value("not a dictionary"));
  auto manifest = read(signers.productionEnvelope(TestContentSigners::encode(minimal)));
  ASSERT_NE(manifest, nullptr) << lastLogged();
  EXPECT_EQ(manifest->getGroupDataList(), nullptr);
  EXPECT_EQ(manifest->getPlugInDataList(), nullptr);
  EXPECT_EQ(manifest->getInfo(), nullptr);  // present, but of the wrong type
  ASSERT_NE(manifest->getManifest(), nullptr);
  EXPECT_EQ(*manifest->getManifest(), *minimal.find("Backup")->dictionary());
  ASSERT_TRUE(manifest->payload().has_value());
  EXPECT_EQ(*manifest->payload(), minimal);
}

// The stream.

TEST_F(SignedManifestTest, FileStreamsAreBoundedAndMustBeRegularFiles) {
  Data bytes = TestContentSigners::encode(signers.productionEnvelope(payload()));
  std::string path = signers.pki.writeFile("manifest.plist", bytes);
  auto stream = platform::inputStreamWithFileAtPath(path);
  ASSERT_NE(stream, nullptr);
  EXPECT_NE(QLXSignedManifest::signedManifestWithNSStream(*stream, signers.platform), nullptr);

  EXPECT_EQ(platform::inputStreamWithFileAtPath(signers.pki.folder() + "/absent"), nullptr);
  EXPECT_EQ(platform::inputStreamWithFileAtPath(signers.pki.folder()), nullptr);
  ASSERT_TRUE(platform::testing::TestPki::run("mkfifo " + signers.pki.folder() + "/fifo"));
  EXPECT_EQ(platform::inputStreamWithFileAtPath(signers.pki.folder() + "/fifo"), nullptr);

  Data tooLarge(QLXSignedManifest::kMaxManifestBytes + 1, ' ');
  EXPECT_EQ(readBytes(tooLarge), nullptr);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_TRUE(lastLogged().starts_with(kInit + "Cannot convert to property list - File too large"));
  EXPECT_TRUE(lastLogged().ends_with("(0x1b)."));  // EFBIG
}

}  // namespace
