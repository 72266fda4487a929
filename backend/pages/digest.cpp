#include "backend/pages/digest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <stdexcept>

#include "backend/text.h"

namespace backend {

static void mustWork(int result) {
  if (result != 1) throw std::runtime_error("SHA-256 failed");
}

// The library keeps some memory for each thread that has used it, and frees it
// when the thread ends: later than the end of the thread's connection, which is
// all that a server going down waits for. So it goes with the digest.
void Sha256::Release::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
  OPENSSL_thread_stop();
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  mustWork(context_ ? EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) : 0);
}

void Sha256::update(std::string_view bytes) {
  mustWork(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

std::string Sha256::hex() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  mustWork(EVP_DigestFinal_ex(context_.get(), digest, &size));
  return hexOf({digest, size});
}

}  // namespace backend
