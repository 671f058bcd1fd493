// SHA-1 through OpenSSL 3's EVP interface.
#pragma once

#include <memory>

#include "platform/Digest.h"

typedef struct evp_md_st EVP_MD;

namespace platform {

class OpenSslDigestService : public DigestService {
 public:
  OpenSslDigestService();
  ~OpenSslDigestService() override;
  OpenSslDigestService(const OpenSslDigestService&) = delete;
  OpenSslDigestService& operator=(const OpenSslDigestService&) = delete;

  std::unique_ptr<Digest> makeSha1() override;

 private:
  // Fetched once: the provider lookup costs more than hashing a small file.
  EVP_MD* sha1_ = nullptr;
};

}  // namespace platform
