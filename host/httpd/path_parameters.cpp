#include "httpd/path_parameters.h"

#include <apr_strings.h>

#include <cstring>

#include "httpd/config.h"
#include "httpd/mod_nsapi.h"
#include "httpd/place.h"

namespace host {

// The request's note of the URI as it came. httpd takes notes over to an index file.
constexpr char kNote[] = "nsapi-uri";

static void dropParameters(char* path) {
  char* end = path;
  bool inParameters = false;
  for (const char* c = path; *c; ++c) {
    inParameters = *c != '/' && (inParameters || *c == ';');
    if (!inParameters) *end++ = *c;
  }
  *end = '\0';
}

// What is left may be another path than the eye sees, as of "/a/..;x/b": it takes the
// form that httpd has given the URI before.
static char* judgedPath(apr_pool_t* pool, const char* uri) {
  char* path = apr_pstrdup(pool, uri);
  dropParameters(path);
  ap_no2slash(path);
  ap_getparents(path);
  return path;
}

char* wholeUri(request_rec* r) {
  const char* whole = apr_table_get(r->notes, kNote);
  if (!whole) return nullptr;
  const char* judged = judgedPath(r->pool, whole);
  const std::size_t size = std::strlen(judged);
  if (std::strncmp(r->uri, judged, size) != 0) return nullptr;
  const char* file = r->uri + size;
  const bool known = !*file || (judged[size - 1] == '/' && !std::strchr(file, '/'));
  if (!known) return nullptr;
  apr_table_unset(r->notes, kNote);
  const char* last = std::strrchr(whole, '/') + 1;
  const char* folder =
      apr_pstrmemdup(r->pool, whole, static_cast<apr_size_t>(last - whole));
  return apr_pstrcat(r->pool, folder, file, last, nullptr);
}

}  // namespace host

int nsapiDropParameters(request_rec* r) {
  const bool concerned = r->uri && *r->uri == '/' && std::strchr(r->uri, ';');
  if (!concerned || !host::configOf(r->server)->servletPaths || !host::pluginsRun(r)) {
    return DECLINED;
  }
  apr_table_setn(r->notes, host::kNote, r->uri);
  r->uri = host::judgedPath(r->pool, r->uri);
  return DECLINED;
}

const char* nsapiMapping(cmd_parms* cmd, void*, const char* mapping) {
  host::ServerConfig* config = host::configOf(cmd->server);
  config->servletPaths = strcasecmp(mapping, "servlet") == 0;
  config->servletPathsSet = true;
  const bool known = config->servletPaths || strcasecmp(mapping, "plain") == 0;
  return known ? nullptr : "NSAPIMapping must be plain or servlet";
}
