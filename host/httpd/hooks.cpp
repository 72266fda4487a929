// The hooks of a request: which stages run where in httpd's own order.
//
//   translate_name   NameTrans   in place of DocumentRoot; path parameters are put aside
//                                until httpd has judged what is left
//   map_to_storage   none        where URIs name no files, httpd looks for none
//   fixups           ObjectType  after httpd's access control: what it allowed
//                                is what the plug-in sees
//   handler          Service     for what the stage before has claimed; at the end of
//                                the handlers, no file of an internal type goes out
#include <apr_strings.h>
#include <http_core.h>
#include <http_protocol.h>
#include <http_request.h>

#include <cstdlib>
#include <cstring>

#include "httpd/child.h"
#include "httpd/internal_type.h"
#include "httpd/mod_nsapi.h"
#include "httpd/notes.h"
#include "httpd/place.h"
#include "httpd/request.h"
#include "httpd/response.h"
#include "layer/builtins.h"
#include "layer/judge.h"
#include "layer/outcome.h"
#include "layer/parameters.h"

namespace host {

constexpr char kHandler[] = "nsapi";

// A stage without lines is one whose functions all decline.
static int runStage(const request_rec* r, Stage stage, HostRequest* request) {
  const Stages* lines = linesOf(r, stage);
  return lines ? lines->runStage(stage, &request->session, request) : REQ_NOACTION;
}

static bool isServed(const request_rec* r, const HostRequest& request) {
  const Stages* lines = linesOf(r, Stage::service);
  return lines && lines->serves(&request);
}

// The page about a failure is httpd's own; what it takes from the plug-in is put
// into the request.
static int putFailure(request_rec* r, const HostRequest& request) {
  const FailureHead head = failureHead(request.status_num, request.reason);
  if (head.recorded) putErrorHead(r, &request);
  return head.status;
}

static int translate(request_rec* r) {
  RequestState* state = stateOf(r);
  if (!state) return HTTP_INTERNAL_SERVER_ERROR;
  HostRequest& request = state->request;
  RunningStage running(&request);
  switch (judgeStage(runStage(r, Stage::nameTrans, &request))) {
    case StageVerdict::declined:
      return DECLINED;
    case StageVerdict::failed:
      return putFailure(r, request);
    case StageVerdict::done:
      break;
  }
  const char* path = pathOf(request.vars);
  if (!path) return DECLINED;
  r->filename = apr_pstrdup(r->pool, path);
  return OK;
}

// What a proxy or a rewriting rule has taken is not the plug-in's; nor is a
// name that is no path.
static bool concernsPlugin(const request_rec* r) {
  return r->uri && *r->uri == '/' && !r->proxyreq && r->filename && *r->filename == '/';
}

// From here on httpd must neither send the browser to another folder nor look
// for a file.
static void claim(RequestState* state, request_rec* r) {
  state->otherHandler = r->handler;
  r->handler = kHandler;
  if (r->finfo.filetype == APR_DIR) r->finfo.filetype = APR_NOFILE;
}

// A type that an ObjectType function has set, for httpd's own handling. An internal one
// stays until a response has one of its own: whatever becomes of the request, no file
// answers it.
static void putType(request_rec* r, const HostRequest& request) {
  const char* type = findValue(request.srvhdrs, "content-type");
  if (type) ap_set_content_type(r, apr_pstrdup(r->pool, type));
}

static int runTypeStage(RequestState* state, request_rec* r) {
  HostRequest& request = state->request;
  RunningStage running(&request);
  if (!putPaths(state, r)) return HTTP_INTERNAL_SERVER_ERROR;
  const int result = runStage(r, Stage::objectType, &request);
  if (judgeStage(result) == StageVerdict::failed) return putFailure(r, request);
  if (!takeInternalType(r, &request)) return HTTP_INTERNAL_SERVER_ERROR;
  if (isServed(r, request)) claim(state, r);
  putType(r, request);
  return DECLINED;
}

static int findType(request_rec* r) {
  if (!pluginsRun(r) || !concernsPlugin(r)) return DECLINED;
  RequestState* state = putWholeUri(r) ? stateOf(r) : nullptr;
  if (!state) return HTTP_INTERNAL_SERVER_ERROR;
  if (state->typed) return DECLINED;
  state->typed = true;
  return runTypeStage(state, r);
}

// A folder whose index file is still to be found.
static bool awaitsIndex(const request_rec* r) {
  return r->finfo.filetype == APR_DIR && r->uri && *r->uri &&
         r->uri[std::strlen(r->uri) - 1] == '/';
}

// httpd sees the limit only when the body is read, and a plug-in needn't read.
static bool isTooLong(request_rec* r) {
  const char* text = apr_table_get(r->headers_in, "Content-Length");
  apr_off_t limit = ap_get_limit_req_body(r);
  return text && limit > 0 && std::strtoll(text, nullptr, 10) > limit;
}

// httpd gives each request a handler's name before it asks the handlers, and some of
// them look at it without asking whether there is one: its type, or the default.
static const char* handlerByType(const request_rec* r) {
  return r->content_type ? mediaType(r) : "default-handler";
}

// What becomes of a request that no Service function has taken: httpd's own
// handlers go on where they would have without the plug-in.
static int giveBack(RequestState* state, request_rec* r) {
  putType(r, state->request);
  r->handler = state->otherHandler ? state->otherHandler : handlerByType(r);
  return DECLINED;
}

// A refusal of httpd's own comes first: it has kept the head from going out, and
// the plug-in knows at most that its response failed.
static int giveAnswer(RequestState* state, request_rec* r, int result) {
  HostRequest& request = state->request;
  if (endsConnection(result)) closeBehind(r);
  const Answer verdict = judgeRequest(request, result);
  if (verdict == Answer::bare) (void)startResponse(&request);
  if (state->exchange.refusal() && r->bytes_sent == 0) return state->exchange.refusal();
  switch (verdict) {
    case Answer::none:
      return giveBack(state, r);
    case Answer::failure:
      return putFailure(r, request);
    case Answer::bare:
    case Answer::whole:
    case Answer::broken:
    case Answer::unknown:
      break;
  }
  state->exchange.finish(verdict == Answer::bare ? Answer::whole : verdict);
  return OK;
}

static int runService(RequestState* state, request_rec* r) {
  HostRequest& request = state->request;
  RunningStage running(&request);
  const int body = state->exchange.settleBody();
  if (body != OK) return body;
  if (!putClient(state, r)) return HTTP_INTERNAL_SERVER_ERROR;
  const int result = runStage(r, Stage::service, &request);
  putNotes(r, request);
  return giveAnswer(state, r, result);
}

}  // namespace host

int nsapiTranslate(request_rec* r) {
  if (!host::pluginsRun(r) || *r->uri != '/' || r->proxyreq) return DECLINED;
  const host::Stages* lines = host::linesOf(r, host::Stage::nameTrans);
  return lines && lines->has(host::Stage::nameTrans) ? host::translate(r) : DECLINED;
}

int nsapiEndTranslation(request_rec*) {
  return host::isTranslating() ? DONE : DECLINED;
}

// httpd has taken the place's settings away before it looks for files, and brings them
// back behind that.
int nsapiSkipWalk(request_rec* r) {
  if (!host::anyPlaceWithoutFiles() || r->proxyreq) return DECLINED;
  const int status = ap_location_walk(r);
  if (status != OK) return status;
  if (host::pluginsRun(r) && !host::namesFiles(r)) return OK;
  r->per_dir_config = r->server->lookup_defaults;
  return DECLINED;
}

int nsapiType(request_rec* r) {
  return host::awaitsIndex(r) ? DECLINED : host::findType(r);
}

int nsapiTypeFolder(request_rec* r) {
  return host::findType(r);
}

// After mod_dir has gone over to an index file, the claim is one of the
// sub-request that found it: the request's own state is made here.
int nsapiServe(request_rec* r) {
  if (!r->handler || std::strcmp(r->handler, host::kHandler) != 0) return DECLINED;
  int status = host::findType(r);
  if (status != DECLINED) return status;
  host::RequestState* state = host::pluginsRun(r) ? host::stateOf(r) : nullptr;
  if (!state || !state->typed) return DECLINED;
  if (host::isTooLong(r)) return HTTP_REQUEST_ENTITY_TOO_LARGE;
  return host::runService(state, r);
}
