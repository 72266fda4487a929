#include "httpd/internal_type.h"

#include <apr_strings.h>
#include <http_log.h>

#include <cstring>

#include "httpd/mod_nsapi.h"
#include "layer/judge.h"
#include "layer/parameters.h"

APLOG_USE_MODULE(nsapi);

namespace host {

const char* mediaType(const request_rec* r) {
  if (!r->content_type) return "";
  return apr_pstrmemdup(r->pool, r->content_type, std::strcspn(r->content_type, ";"));
}

bool takeInternalType(request_rec* r, HostRequest* request) {
  if (!isInternalType(r->content_type)) return true;
  pblock* headers = request->srvhdrs;
  if (isInternalType(findValue(headers, "content-type"))) return true;
  freeParameter(findParameter(headers, "content-type", true));
  return addParameter(headers, "content-type", mediaType(r)) != nullptr;
}

}  // namespace host

int nsapiHideSource(request_rec* r) {
  if (!host::isInternalType(r->content_type)) return DECLINED;
  ap_log_rerror(APLOG_MARK, APLOG_ERR, 0, r,
                "no Service line has taken %s of type %s, which is never sent as a file",
                r->uri, r->content_type);
  return HTTP_NOT_FOUND;
}
