#include "platform/testing/TestPki.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace platform::testing {

TestPki::TestPki() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vexd-pki-XXXXXX").string();
  if (::mkdtemp(pattern.data()) != nullptr) {
    folder_ = pattern;
    ok_ = true;
  }
}

TestPki::~TestPki() {
  std::error_code ec;
  if (ok_) std::filesystem::remove_all(folder_, ec);
}

bool TestPki::run(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

std::vector<std::uint8_t> TestPki::readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in),
                                   std::istreambuf_iterator<char>());
}

std::string TestPki::writeFile(const std::string& name, const std::vector<std::uint8_t>& bytes) {
  std::string file = name.starts_with("/") ? name : path(name);
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  return file;
}

Identity TestPki::makeRoot(const std::string& name, CertOptions options) {
  Identity id{name, path(name + ".key"), path(name + ".pem")};
  std::string command = "openssl req -x509 -newkey rsa:" + std::to_string(options.keyBits) +
                        " -nodes -keyout " + id.keyPath + " -out " + id.certPath + " -days " +
                        std::to_string(options.validDays) + " -subj /CN=" + name;
  if (options.isCa) {
    command += " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign";
  }
  if (!run(command)) ok_ = false;
  return id;
}

Identity TestPki::makeIssued(const std::string& name, const Identity& issuer, CertOptions options) {
  Identity id{name, path(name + ".key"), path(name + ".pem")};
  std::string csr = path(name + ".csr");
  std::string ext = path(name + ".ext");
  {
    std::ofstream out(ext);
    out << "basicConstraints=critical," << (options.isCa ? "CA:TRUE" : "CA:FALSE");
    if (options.isCa && options.pathLength >= 0) out << ",pathlen:" << options.pathLength;
    out << "\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n";
    if (!options.keyUsage.empty()) {
      out << "keyUsage=critical," << options.keyUsage << "\n";
    } else if (options.isCa) {
      out << "keyUsage=critical,keyCertSign\n";
    }
    if (!options.extendedKeyUsage.empty())
      out << "extendedKeyUsage=" << options.extendedKeyUsage << "\n";
  }
  bool made = run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" +
                  std::to_string(options.keyBits) + " -out " + id.keyPath) &&
              run("openssl req -new -key " + id.keyPath + " -subj /CN=" + name + " -out " + csr) &&
              run("openssl x509 -req -in " + csr + " -CA " + issuer.certPath + " -CAkey " +
                  issuer.keyPath + " -set_serial " + std::to_string(serial_++) + " -days " +
                  std::to_string(options.validDays) + " -extfile " + ext + " -out " + id.certPath);
  if (!made) ok_ = false;
  return id;
}

std::string TestPki::anchorFolder(const std::string& name,
                                  std::initializer_list<Identity> anchors) {
  std::string dir = path(name);
  std::filesystem::create_directories(dir);
  for (const Identity& anchor : anchors) {
    std::filesystem::copy_file(anchor.certPath, dir + "/" + anchor.name + ".pem",
                               std::filesystem::copy_options::overwrite_existing);
  }
  return dir;
}

std::vector<std::uint8_t> TestPki::der(const Identity& identity) {
  std::string out = path(identity.name + ".der");
  if (!run("openssl x509 -in " + identity.certPath + " -outform DER -out " + out)) return {};
  return readFile(out);
}

std::string TestPki::chainFile(const std::string& name, std::initializer_list<Identity> chain) {
  std::vector<std::uint8_t> all;
  for (const Identity& id : chain) {
    std::vector<std::uint8_t> pem = readFile(id.certPath);
    all.insert(all.end(), pem.begin(), pem.end());
  }
  return writeFile(name, all);
}

std::vector<std::uint8_t> TestPki::signSha1(const Identity& signer,
                                            const std::vector<std::uint8_t>& bytes) {
  std::string in = writeFile("to-sign.bin", bytes);
  std::string out = path("signature.bin");
  if (!run("openssl dgst -sha1 -sign " + signer.keyPath + " -out " + out + " " + in)) return {};
  return readFile(out);
}

bool TestPki::verifySha1(const Identity& signer, const std::vector<std::uint8_t>& bytes,
                         const std::vector<std::uint8_t>& signature) {
  std::string in = writeFile("to-verify.bin", bytes);
  std::string sig = writeFile("to-verify.sig", signature);
  std::string pub = path(signer.name + ".pub");
  return run("openssl x509 -in " + signer.certPath + " -pubkey -noout -out " + pub) &&
         run("openssl dgst -sha1 -verify " + pub + " -signature " + sig + " " + in);
}

}  // namespace platform::testing
