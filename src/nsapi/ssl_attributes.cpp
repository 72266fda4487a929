#include "nsapi/ssl_attributes.h"

#include <nsapi.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "nsapi/host_objects.h"

// Bytes that a certificate's frame takes, with the NUL.
constexpr std::int64_t kCertificateFrameSize = 57;

// `size` leaves out the NUL.
static std::int32_t addText(vesk_request* req, const char* name, const char* text) {
  const veskAttribute* before = req->attributes;
  req->setAttribute(req, name, text, static_cast<std::int32_t>(std::strlen(text)));
  return req->attributes == before ? -1 : 0;
}

static std::int32_t addKeySize(vesk_request* req) {
  const char* size = pblock_findval("keysize", sessionOf(req)->client);
  if (!size || !*size) {
    req->trace(req, "No key size found in the Secure request");
    return 0;
  }
  if (addText(req, "javax.servlet.request.key_size", size) < 0) return -1;
  req->trace(req, "The key size is %s", size);
  return 0;
}

// The certificate in the frame that readers expect, kept with the request; null
// when memory runs out.
static const char* framedCertificate(vesk_request* req, const char* certificate) {
  const std::int64_t size =
      static_cast<std::int64_t>(std::strlen(certificate)) + kCertificateFrameSize;
  if (size > INT_MAX) return nullptr;
  auto* text = static_cast<char*>(req->malloc(req, static_cast<std::int32_t>(size)));
  if (!text) return nullptr;
  if (keepBlock(req, text) < 0) {
    req->free(req, text);
    return nullptr;
  }
  (void)std::snprintf(text, static_cast<std::size_t>(size),
                      "-----BEGIN CERTIFICATE-----\n%s\n-----END CERTIFICATE-----\n\n",
                      certificate);
  return text;
}

static std::int32_t addCertificate(vesk_request* req) {
  const char* certificate = pblock_findval("auth-cert", requestOf(req)->vars);
  if (!certificate || !*certificate) {
    req->trace(req, "No client certificate found in the secure request");
    return 0;
  }
  const char* text = framedCertificate(req, certificate);
  if (!text || addText(req, "javax.servlet.request.X509Certificate", text) < 0) return -1;
  req->trace(req, "Client certificate found in the secure request");
  return 0;
}

std::int32_t addSslAttributes(vesk_request* req) {
  req->trace(req, "Using SSL");
  if (addKeySize(req) < 0) return -1;
  return addCertificate(req);
}
