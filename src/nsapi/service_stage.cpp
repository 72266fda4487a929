#include "nsapi/service_stage.h"

#include <cstdlib>
#include <cstring>

#include "context/guards.h"
#include "context/memory.h"
#include "context/text.h"
#include "maptable/vesk_maptable_impl.h"
#include "nsapi/host_attributes.h"
#include "nsapi/host_log.h"
#include "nsapi/host_objects.h"
#include "nsapi/nsapi_request.h"
#include "nsapi/outcome.h"
#include "nsapi/response_mark.h"
#include "nsapi/response_path.h"
#include "nsapi/ssl_attributes.h"
#include "proxy/replay.h"

// REQ_PROCEED when the URI may go to a server.
static int checkUri(vesk_request* req) {
  if (!req->uri) {
    req->log(req, "veskservice: request without URI refused");
    return refuse(req, kBadRequest, "Request has no URI.");
  }
  // A server trusts what its web server lets through.
  if (!util_uri_is_evil(const_cast<char*>(req->uri))) return REQ_PROCEED;
  req->setStatus(req, kForbidden, "Requested URI contains insecure path characters.");
  req->log(req, "veskservice: evil uri \"%s\" ignored", req->uri);
  return REQ_ABORTED;
}

// Counts the client's headers, and with `names` and `values` stores them there. A request
// without a block has no headers.
static std::int64_t walkHeaders(const pblock* headers, const char** names,
                                const char** values) {
  BlockWalk walk{headers, 0, nullptr};
  std::int64_t count = 0;
  for (; const pb_param* param = nextParameter(&walk); ++count) {
    if (!names) continue;
    names[count] = param->name;
    values[count] = param->value;
  }
  return count;
}

// The texts stay the host's: a request costs two arrays, however long its headers are.
// 0, or -1 when memory runs out.
static std::int32_t collectHeaders(vesk_request* req) {
  const pblock* headers = requestOf(req)->headers;
  const std::int64_t count = walkHeaders(headers, nullptr, nullptr);
  req->headerNames = newTextArray(req, count);
  if (!req->headerNames) return -1;
  req->headerValues = newTextArray(req, count);
  if (!req->headerValues) return -1;
  (void)walkHeaders(headers, req->headerNames, req->headerValues);
  return 0;
}

static void freeTextArray(vesk_request* req, const char*** array) {
  if (*array) req->free(req, static_cast<void*>(*array));
  *array = nullptr;
}

// In this order: attributes refer to kept blocks.
static void releaseCollected(vesk_request* req) {
  freeTextArray(req, &req->headerNames);
  freeTextArray(req, &req->headerValues);
  req->freeAttributes(req);
  req->freeAttributeNames(req);
  releaseKeptBlocks(req);
  releaseResponseMark(req);
  endReplay(req);
}

// The mapping that the filter stage found; -1 when it found none. By now it is
// text from outside, and the table checks the number.
static std::int32_t storedTarget(const vesk_request* req) {
  constexpr int kDecimal = 10;
  const char* text = pblock_findval("vesk-proxy-target", requestOf(req)->vars);
  if (!text) return -1;
  return clampToInt32(std::strtol(text, nullptr, kDecimal));
}

// Whether a part of the answer has gone out and nothing will complete it. Only with the
// guard the browser is to see that: without it, a page stands behind that part.
static bool isBroken(const vesk_request* req) {
  return guarded(req, Guard::partial) && req->outcome.kind == kOutcomeBroken;
}

// Once a part of the answer has gone out, no other can follow it: neither an error page
// of the host's nor the file behind the URI.
static int judgeOutcome(vesk_request* req, std::int32_t outcome) {
  const bool over = outcome >= 0 || req->responseStarted;
  if (over && !isBroken(req)) return REQ_PROCEED;
  if (outcome == kRequestNotOurs) {
    req->trace(req, "handleRequest not for Vesk -> REQ_NOACTION");
    return REQ_NOACTION;
  }
  req->trace(req, "handleRequest -> REQ_ABORTED");
  return REQ_ABORTED;
}

// Forwards the request. What it collects is released by the caller.
static int forwardRequest(vesk_request* req, mappingsTable* table) {
  req->hasPostData = 1;
  bool complete = collectHeaders(req) == 0;
  if (complete && conf_getglobals()->Vsecurity_active)
    complete = addSslAttributes(req) == 0;
  complete = complete && addHostAttributes(req) == 0;
  if (!complete) {
    req->log(req, "veskservice: no memory to forward the request");
    return refuse(req, kInternalError, "Out of memory.");
  }
  return judgeOutcome(
      req, table->handleRequestWithIndex(table, req, nullptr, storedTarget(req)));
}

static int forwardAndRelease(vesk_request* req, mappingsTable* table) {
  constexpr std::int32_t kFirstErrorStatus = 400;
  int result = forwardRequest(req, table);
  releaseCollected(req);
  // A host writes its access log and error pages by the status; a result that speaks of
  // success beside it would confuse both. A redirect in place of a 503 is a success.
  const Request* rq = requestOf(req);
  if (rq->status_num >= kFirstErrorStatus) result = REQ_ABORTED;
  req->trace(req, "veskservice[exit]: return status %d and req status %d", rq->status_num,
             result);
  return result;
}

// Sets the moment at which the request ends, whatever it waits for then.
static void setDeadline(vesk_request* req) {
  constexpr std::int64_t kMillisPerSecond = 1000;
  if (veskRequestTimeout != 0)
    req->deadline = req->ticks(req) + veskRequestTimeout * kMillisPerSecond;
}

static int serve(mappingsTable* table, vesk_request* req) {
  const Request* rq = requestOf(req);
  const char* type = pblock_findval("content-type", rq->srvhdrs);
  if (!isInternalType(type)) return REQ_NOACTION;
  if (std::strcmp(type, "vesk-internal/ext") == 0)
    return refuse(req, kServiceUnavailable,
                  "Could not connect to Vesk server or invalid web server configuration "
                  "for Vesk.");
  // The response's type must come from the backend. This is before the checks below, so
  // that the marker shows in no answer of the host's own.
  dropParameter("content-type", rq->srvhdrs);

  if (checkUri(req) != REQ_PROCEED) return REQ_ABORTED;
  if (!table) {
    const int result =
        refuse(req, kServiceUnavailable, "Internal error, no Vesk mapping table.");
    req->trace(req, "veskservice: internal error, no mapping table");
    return result;
  }
  if (table->initTable(table, req) != 0)
    return refuse(req, kServiceUnavailable, "Can not connect to Vesk server.");
  return forwardAndRelease(req, table);
}

int runServiceStage(mappingsTable* table, pblock* pb, Session* sn, Request* rq) {
  vesk_request req;
  init_nsapi_request(&req, pb, sn, rq);
  setDeadline(&req);
  dumpHeaders(&req, "veskservice: [enter]");
  const int result = serve(table, &req);
  leaveOutcome(&req);
  return result;
}
