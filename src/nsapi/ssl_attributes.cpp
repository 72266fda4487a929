#include "nsapi/ssl_attributes.h"

#include <nsapi.h>

#include <cstdio>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/text.h"
#include "nsapi/host_attributes.h"
#include "nsapi/host_objects.h"

// Bytes that a certificate's frame takes, with the NUL: readers of PEM want the first
// and the last line in this very form.
constexpr std::int64_t kCertificateFrameSize = 57;

// The host's text outlives the request's attributes, so there is no copy.
static std::int32_t addKeySize(vesk_request* req) {
  const char* size = pblock_findval("keysize", sessionOf(req)->client);
  if (!size || !*size) {
    req->trace(req, "No key size found in the Secure request");
    return 0;
  }
  if (addTextAttribute(req, "javax.servlet.request.key_size", size) < 0) return -1;
  req->trace(req, "The key size is %s", size);
  return 0;
}

// The certificate in the frame that readers expect, kept with the request; null
// when memory runs out.
static const char* framedCertificate(vesk_request* req, const char* certificate) {
  const std::int64_t size = textLength(certificate) + kCertificateFrameSize;
  RequestBlock text{req, newBlock(req, size)};
  if (!text.bytes || keepBlock(req, text.bytes) < 0) return nullptr;
  (void)std::snprintf(text.bytes, static_cast<std::size_t>(size),
                      "-----BEGIN CERTIFICATE-----\n%s\n-----END CERTIFICATE-----\n\n",
                      certificate);
  return text.handOn();
}

static std::int32_t addCertificate(vesk_request* req) {
  const char* certificate = pblock_findval("auth-cert", requestOf(req)->vars);
  if (!certificate || !*certificate) {
    req->trace(req, "No client certificate found in the secure request");
    return 0;
  }
  const char* text = framedCertificate(req, certificate);
  if (!text || addTextAttribute(req, "javax.servlet.request.X509Certificate", text) < 0)
    return -1;
  req->trace(req, "Client certificate found in the secure request");
  return 0;
}

std::int32_t addSslAttributes(vesk_request* req) {
  // The host says whether it is secure, not whether this connection is: so either may
  // be missing, and a request without them is still a good one.
  req->trace(req, "Using SSL");
  if (addKeySize(req) < 0) return -1;
  return addCertificate(req);
}
