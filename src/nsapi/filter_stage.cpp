#include "nsapi/filter_stage.h"

#include <cstring>

#include "maptable/vesk_maptable_impl.h"
#include "nsapi/fix_uri.h"
#include "nsapi/host_log.h"
#include "nsapi/host_objects.h"
#include "nsapi/nsapi_request.h"

static void readPath(vesk_request* req) {
  pblock* vars = requestOf(req)->vars;
  req->path = pblock_findval("ppath", vars);
  if (!req->path) req->path = pblock_findval("path", vars);
}

// The index of the request's mapping, or -1 when it is left to the host.
static std::int32_t findMapping(mappingsTable* table, vesk_request* req) {
  const char* type = pblock_findval("content-type", requestOf(req)->srvhdrs);
  if (isInternalType(type)) return -1;
  if (!table) {
    req->trace(req, "veskfilter: internal error, no mapping table");
    return -1;
  }
  if (table->initTable(table, req) != 0) return -1;
  readPath(req);
  if (!req->uri) {
    req->trace(req, "no URI, declining request");
    return -1;
  }
  return table->filterRequest(table, req, 1);
}

static bool endsInSlash(const char* uri) {
  const std::size_t length = std::strlen(uri);
  return length > 0 && uri[length - 1] == '/';
}

// Without memory the URI stays the folder's; the server then sees that.
static void completeUri(vesk_request* req) {
  const Request* rq = requestOf(req);
  const char* base = pblock_findval("ntrans-base", rq->vars);
  char* fixed = fix_uri(req, req->uri, req->path, base);
  if (!fixed) return;
  dropParameter("uri", rq->reqpb);
  (void)pblock_nvinsert("uri", fixed, rq->reqpb);
  req->uri = pblock_findval("uri", rq->reqpb);
  req->free(req, fixed);
}

int runFilterStage(mappingsTable* table, pblock* pb, Session* sn, Request* rq) {
  vesk_request req;
  init_nsapi_request(&req, pb, sn, rq);
  dumpHeaders(&req, "veskfilter: [enter]");

  const std::int32_t index = findMapping(table, &req);
  if (index < 0) return REQ_NOACTION;

  if (endsInSlash(req.uri)) completeUri(&req);
  (void)pblock_nninsert("vesk-proxy-target", index, rq->vars);
  dropParameter("content-type", rq->srvhdrs);
  (void)pblock_nvinsert("content-type", "vesk-internal/target", rq->srvhdrs);
  return REQ_NOACTION;
}
