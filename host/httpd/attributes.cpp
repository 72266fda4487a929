#include "httpd/attributes.h"

#include <apr_strings.h>

#include "httpd/config.h"
#include "layer/parameters.h"

namespace host {

bool putAttribute(HostRequest* request, const request_rec* r, const char* name,
                  const char* value) {
  if (!value) return true;
  const char* parameter = apr_pstrcat(r->pool, "vesk-attribute-", name, nullptr);
  return addParameter(request->vars, parameter, value) != nullptr;
}

bool putEnvVars(HostRequest* request, const request_rec* r) {
  const apr_array_header_t* names = configOf(r->server)->envVars;
  for (int i = 0; names && i < names->nelts; ++i) {
    const char* name = APR_ARRAY_IDX(names, i, const char*);
    const char* value = apr_table_get(r->subprocess_env, name);
    if (!putAttribute(request, r, name, value)) return false;
  }
  return true;
}

}  // namespace host
