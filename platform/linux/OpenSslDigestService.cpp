#include "platform/linux/OpenSslDigestService.h"

#include <openssl/evp.h>

namespace platform {

namespace {

struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

class OpenSslDigest : public Digest {
 public:
  OpenSslDigest(const EVP_MD* md, EVP_MD_CTX* ctx) : md_(md), ctx_(ctx) {}

  bool start() { return EVP_DigestInit_ex2(ctx_.get(), md_, nullptr) == 1; }

  void update(std::span<const std::uint8_t> bytes) override {
    if (!bytes.empty()) EVP_DigestUpdate(ctx_.get(), bytes.data(), bytes.size());
  }

  Data finish() override {
    Data out(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx_.get(), out.data(), &length) != 1) length = 0;
    out.resize(length);
    start();
    return out;
  }

 private:
  const EVP_MD* md_;
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx_;
};

}  // namespace

OpenSslDigestService::OpenSslDigestService() : sha1_(EVP_MD_fetch(nullptr, "SHA1", nullptr)) {}

OpenSslDigestService::~OpenSslDigestService() { EVP_MD_free(sha1_); }

std::unique_ptr<Digest> OpenSslDigestService::makeSha1() {
  if (!sha1_) return nullptr;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  if (!ctx) return nullptr;
  auto digest = std::make_unique<OpenSslDigest>(sha1_, ctx);
  if (!digest->start()) return nullptr;
  return digest;
}

}  // namespace platform
