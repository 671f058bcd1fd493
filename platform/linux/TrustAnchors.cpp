#include "platform/linux/TrustAnchors.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace platform::ossl {

namespace {

// Anchor files are a few certificates; anything larger is not one of ours.
constexpr std::uintmax_t kMaxAnchorFileSize = 1 << 20;

bool readSmallFile(const std::filesystem::path& path, std::string& out) {
  std::error_code ec;
  std::uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec || size > kMaxAnchorFileSize) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

}  // namespace

std::vector<X509Ptr> readPemCertificates(const std::string& pem) {
  std::vector<X509Ptr> certificates;
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) return certificates;
  while (X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    certificates.emplace_back(cert);
  }
  // The loop ends on "no more PEM blocks"; that is not an error worth keeping.
  ERR_clear_error();
  return certificates;
}

std::vector<X509Ptr> loadAnchorFolder(const std::string& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::filesystem::path& path = it->path();
    if (path.extension() != ".pem") continue;
    std::error_code typeError;
    if (!it->is_regular_file(typeError)) continue;
    files.push_back(path);
  }
  std::sort(files.begin(), files.end());

  std::vector<X509Ptr> anchors;
  for (const auto& path : files) {
    std::string text;
    if (!readSmallFile(path, text)) continue;
    for (X509Ptr& cert : readPemCertificates(text)) anchors.push_back(std::move(cert));
  }
  return anchors;
}

}  // namespace platform::ossl
