// Certificate authorities, intermediates, signers and signatures made at run
// time with the openssl command, in a private temporary folder.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace platform::testing {

struct CertOptions {
  bool isCa = false;
  int pathLength = -1;   // CA path-length limit; -1 for none
  int validDays = 365;   // negative: the certificate has already expired
  int keyBits = 1024;    // small keys keep the tests quick; size is the signer's choice
  std::string keyUsage;  // e.g. "digitalSignature"; empty for no extension
  std::string extendedKeyUsage;

  CertOptions& ca(int limit = -1) {
    isCa = true;
    pathLength = limit;
    return *this;
  }
  CertOptions& days(int n) {
    validDays = n;
    return *this;
  }
  CertOptions& bits(int n) {
    keyBits = n;
    return *this;
  }
  CertOptions& usage(std::string u) {
    keyUsage = std::move(u);
    return *this;
  }
  CertOptions& extendedUsage(std::string u) {
    extendedKeyUsage = std::move(u);
    return *this;
  }
};

struct Identity {
  std::string name;
  std::string keyPath;   // PEM private key
  std::string certPath;  // PEM certificate
};

class TestPki {
 public:
  TestPki();
  ~TestPki();
  TestPki(const TestPki&) = delete;
  TestPki& operator=(const TestPki&) = delete;

  const std::string& folder() const { return folder_; }
  bool ok() const { return ok_; }

  // A self-signed CA.
  Identity makeRoot(const std::string& name, CertOptions options = CertOptions().ca().days(3650));
  // A certificate for a fresh key, signed by issuer.
  Identity makeIssued(const std::string& name, const Identity& issuer, CertOptions options = {});

  // A folder named name holding one PEM file per given certificate.
  std::string anchorFolder(const std::string& name, std::initializer_list<Identity> anchors);
  // The certificate in DER form.
  std::vector<std::uint8_t> der(const Identity& identity);
  // The PEM certificates of the identities, concatenated in order, as a file.
  std::string chainFile(const std::string& name, std::initializer_list<Identity> chain);

  // "openssl dgst -sha1 -sign" over bytes; empty on failure.
  std::vector<std::uint8_t> signSha1(const Identity& signer,
                                     const std::vector<std::uint8_t>& bytes);
  // "openssl dgst -sha1 -verify" with the certificate's public key.
  bool verifySha1(const Identity& signer, const std::vector<std::uint8_t>& bytes,
                  const std::vector<std::uint8_t>& signature);

  std::string writeFile(const std::string& name, const std::vector<std::uint8_t>& bytes);
  static std::vector<std::uint8_t> readFile(const std::string& path);
  // Runs a shell command quietly; true when it exits with 0.
  static bool run(const std::string& command);

 private:
  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  std::string folder_;
  bool ok_ = false;
  int serial_ = 1;
};

}  // namespace platform::testing
