#include "nsapi/filter_stage.h"

#include <cstring>

#include "context/request_block.h"
#include "maptable/vesk_maptable_impl.h"
#include "nsapi/fix_uri.h"
#include "nsapi/host_log.h"
#include "nsapi/host_objects.h"
#include "nsapi/nsapi_request.h"
#include "nsapi/response_path.h"

static void readPath(vesk_request* req) {
  pblock* vars = requestOf(req)->vars;
  req->path = pblock_findval("ppath", vars);
  if (!req->path) req->path = pblock_findval("path", vars);
}

// The index of the request's mapping, or -1 when it is left to the host.
static std::int32_t findMapping(mappingsTable* table, vesk_request* req) {
  const char* type = pblock_findval("content-type", requestOf(req)->srvhdrs);
  // Typed already, by the configuration or by this stage: what was decided stands.
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
  // 1: `ignoresuffixmap` counts here and only here. What the configuration itself has
  // typed for the connector is served by suffix, whatever the option says.
  return table->filterRequest(table, req, 1);
}

static bool endsInSlash(const char* uri) {
  const std::size_t length = std::strlen(uri);
  return length > 0 && uri[length - 1] == '/';
}

// Puts a new URI in the place of the old one, or leaves the old one there. A block
// takes new entries at either end, as its host likes, and the first of a name
// counts: so the old one is out of the block while the new one goes in.
static void replaceUri(pblock* block, const char* uri) {
  pb_param* old = pblock_remove("uri", block);
  (void)pblock_nvinsert("uri", uri, block);
  const bool isThere = pblock_findval("uri", block);
  if (!isThere && old) (void)pblock_nvinsert("uri", old->value, block);
  (void)param_free(old);
}

// Without memory the URI stays the folder's; the server then sees that.
static void completeUri(vesk_request* req) {
  const Request* rq = requestOf(req);
  const char* base = pblock_findval("ntrans-base", rq->vars);
  const RequestBlock fixed{req, fix_uri(req, req->uri, req->path, base)};
  if (fixed.bytes) replaceUri(rq->reqpb, fixed.bytes);
  req->uri = pblock_findval("uri", rq->reqpb);
}

// Leaves in the host's request what the service stage goes by. The type stands last,
// for it is what sends the request there.
static void markRequest(vesk_request* req, std::int32_t index) {
  const Request* rq = requestOf(req);
  if (endsInSlash(req->uri)) completeUri(req);
  (void)pblock_nninsert("vesk-proxy-target", index, rq->vars);
  dropParameter("content-type", rq->srvhdrs);
  (void)pblock_nvinsert("content-type", "vesk-internal/target", rq->srvhdrs);
}

// Whether the service stage will get the request and know it again; a missing URI it
// refuses by itself. The blocks are asked, not the results of the insertions: what
// counts is what that stage will see.
static bool isMarked(const vesk_request* req) {
  const Request* rq = requestOf(req);
  return pblock_findval("vesk-proxy-target", rq->vars) &&
         isInternalType(pblock_findval("content-type", rq->srvhdrs));
}

int runFilterStage(mappingsTable* table, pblock* pb, Session* sn, Request* rq) {
  vesk_request req;
  init_nsapi_request(&req, pb, sn, rq);
  dumpHeaders(&req, "veskfilter: [enter]");

  const std::int32_t index = findMapping(table, &req);
  if (index < 0) return REQ_NOACTION;

  markRequest(&req, index);
  if (isMarked(&req)) return REQ_NOACTION;
  // Left to the host, a request half marked would be answered with the file behind it,
  // which may be the source of a page.
  req.log(&req, "veskfilter: no memory to mark the request");
  return refuse(&req, kInternalError, "Out of memory.");
}
