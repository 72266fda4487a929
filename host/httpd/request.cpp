#include "httpd/request.h"

#include <apr_strings.h>
#include <http_config.h>
#include <http_core.h>

#include <cstring>
#include <new>

#include "httpd/attributes.h"
#include "httpd/config.h"
#include "httpd/front.h"
#include "httpd/mod_nsapi.h"
#include "httpd/path_parameters.h"
#include "httpd/tls.h"
#include "layer/builtins.h"
#include "layer/client_names.h"
#include "layer/parameters.h"
#include "layer/request_setup.h"
#include "layer/stages.h"

namespace host {

// A value that httpd hasn't got is left out.
static bool add(pblock* pb, const char* name, const char* value) {
  return !value || addParameter(pb, name, value) != nullptr;
}

// The client's order is the table's. httpd has joined headers of one name.
static bool putHeaders(pblock* headers, request_rec* r) {
  const ServerConfig* config = configOf(r->server);
  const bool allNames = config->clientNames;
  const Front* distrusted = cameThrough(config->front, r) ? nullptr : config->front;
  const apr_array_header_t* table = apr_table_elts(r->headers_in);
  const void* elements = table->elts;
  const auto* entries = static_cast<const apr_table_entry_t*>(elements);
  for (int i = 0; i < table->nelts; ++i) {
    if (!entries[i].key || !entries[i].val) continue;
    if (!allNames && isHostsWord(entries[i].key)) continue;
    if (distrusted && isFronts(distrusted, entries[i].key)) continue;
    char* name = requestText(entries[i].key);
    if (!name) return false;
    ap_str_tolower(name);
    bool added = add(headers, name, entries[i].val);
    releasePoolBlock(name);
    if (!added) return false;
  }
  return true;
}

static bool fill(RequestState* state, request_rec* r) {
  HostRequest& request = state->request;
  RunningRequest running(&request);
  return openRequest(&request, &state->exchange) &&
         add(request.reqpb, "clf-request", r->the_request) &&
         add(request.reqpb, "method", r->method) &&
         add(request.reqpb, "protocol", r->protocol) &&
         add(request.reqpb, "uri", r->uri) && add(request.reqpb, "query", r->args) &&
         add(request.session.client, "ip", r->useragent_ip) &&
         putHeaders(request.headers, r);
}

static apr_status_t deleteState(void* state) {
  delete static_cast<RequestState*>(state);
  return APR_SUCCESS;
}

static RequestState* newState(request_rec* r) {
  auto* state = new (std::nothrow) RequestState(r);
  if (!state) return nullptr;
  apr_pool_cleanup_register(r->pool, state, deleteState, apr_pool_cleanup_null);
  if (!fill(state, r)) return nullptr;
  ap_set_module_config(r->request_config, &nsapi_module, state);
  return state;
}

// Null where there is none for the present URI.
static RequestState* currentState(request_rec* r) {
  void* kept = ap_get_module_config(r->request_config, &nsapi_module);
  auto* state = static_cast<RequestState*>(kept);
  return state && std::strcmp(state->uri, r->uri) == 0 ? state : nullptr;
}

RequestState* stateOf(request_rec* r) {
  RequestState* state = currentState(r);
  return state ? state : newState(r);
}

// What the NameTrans functions have found under the judged URI stays.
bool putWholeUri(request_rec* r) {
  char* whole = wholeUri(r);
  if (!whole) return true;
  RequestState* state = currentState(r);
  r->uri = whole;
  if (!state) return true;
  RunningRequest running(&state->request);
  state->uri = whole;
  freeParameter(findParameter(state->request.reqpb, "uri", true));
  return addParameter(state->request.reqpb, "uri", whole) != nullptr;
}

bool putPaths(RequestState* state, request_rec* r) {
  pblock* vars = state->request.vars;
  // Behind a path that doesn't exist, `path_info` is only the rest of the URI.
  bool behindFile = r->finfo.filetype == APR_REG && r->path_info && *r->path_info;
  if (behindFile && !add(vars, "path-info", r->path_info)) return false;
  if (pathOf(vars)) return true;
  const char* path = apr_pstrcat(r->pool, r->filename, r->path_info, nullptr);
  return add(vars, "ppath", path) && add(vars, "path", path) &&
         add(vars, "ntrans-base", ap_context_document_root(r));
}

// The headers are taken a second time: between the stages other modules set, add
// and drop some.
bool putClient(RequestState* state, request_rec* r) {
  HostRequest& request = state->request;
  request.headers = newParameters();
  return request.headers && putHeaders(request.headers, r) &&
         add(request.vars, "auth-user", r->user) &&
         add(request.vars, "auth-type", r->ap_auth_type) && putTls(&request, r) &&
         putEnvVars(&request, r);
}

}  // namespace host
