// Owning handles for the OpenSSL objects the platform layer uses, so every
// early return frees what was made.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

namespace platform::ossl {

template <class T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};

inline void freeX509Stack(STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); }

using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using X509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<STACK_OF(X509), freeX509Stack>>;
using X509StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using X509StoreCtxPtr =
    std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

// A second owning reference to an object someone else holds.
inline X509Ptr shareX509(X509* cert) {
  if (cert == nullptr || X509_up_ref(cert) != 1) return nullptr;
  return X509Ptr(cert);
}
inline EvpPkeyPtr shareKey(EVP_PKEY* key) {
  if (key == nullptr || EVP_PKEY_up_ref(key) != 1) return nullptr;
  return EvpPkeyPtr(key);
}

}  // namespace platform::ossl
