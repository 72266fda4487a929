#include "nsapi/nsapi_request.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "context/request_setup.h"
#include "nsapi/host_log.h"
#include "nsapi/host_memory.h"
#include "nsapi/request_body.h"
#include "nsapi/request_variables.h"
#include "nsapi/response_mark.h"
#include "nsapi/response_path.h"

// The client's TCP port; 0 when the host can't tell, which is no reason to have no
// record: the port only names the request in the log.
static int clientPort(Session* sn) {
  sockaddr_in address;
  std::memset(&address, 0, sizeof address);
  int size = sizeof address;
  auto* generic = static_cast<sockaddr*>(static_cast<void*>(&address));
  if (net_getpeername(sn->csd, generic, &size) < 0) return 0;
  return ntohs(address.sin_port);
}

// The prefix ties the lines of one request together, also over its two stages: each
// builds its own record, but the client's port is the same.
static void setLogPrefix(vesk_request* req, Session* sn) {
  constexpr char kBegin[] = "veskNSAPI[";
  constexpr std::size_t kLength = sizeof kBegin - 1;
  std::memcpy(req->logPrefix, kBegin, kLength);
  char* at = req->logPrefix + kLength;
  char* end = req->logPrefix + sizeof req->logPrefix;
  at = sn ? std::to_chars(at, end, clientPort(sn)).ptr : std::copy_n("init", 4, at);
  std::memcpy(at, "] ", sizeof "] ");
}

static void installHostOperations(vesk_request* req) {
  req->getHeader = getHeader;
  req->getVariables = getVariables;
  req->getRealPath = getRealPath;
  req->getPostData = getPostData;
  req->setStatus = setStatus;
  req->addHeader = addHeader;
  req->writeClient = writeClient;
  req->markResponse = markResponse;
  req->restoreResponse = restoreResponse;
}

// The three request operations change together: a block from one family must not go
// back through the other.
static void installHostAllocators(vesk_request* req) {
  const bool pool = veskUseApiAlloc != 0;
  req->malloc = pool ? nsapi_malloc : nsapi_perm_malloc;
  req->strdup = pool ? nsapi_strdup : nsapi_perm_strdup;
  req->free = pool ? nsapi_free : nsapi_perm_free;
  req->permMalloc = nsapi_perm_malloc;
  req->permFree = nsapi_perm_free;
  req->permStrdup = nsapi_perm_strdup;
}

// A grade that is off keeps the empty function, so that a line which nobody reads
// costs one call and is never formatted.
static void installHostLog(vesk_request* req) {
  req->log = WriteToLog;
  if (veskNSAPIVerbose) req->trace = WriteToLog;
  if (veskEnabledTraceFlags) req->traceE = WriteToLogE;
}

void init_nsapi_request(vesk_request* req, pblock* pb, Session* sn, Request* rq) {
  init_vesk_request(req);
  req->pb = pb;
  req->sn = sn;
  req->rq = rq;
  req->noClientOutput = 0;
  req->connectorType = kConnectorNsapi;
  setLogPrefix(req, sn);
  installHostOperations(req);
  installHostAllocators(req);
  installHostLog(req);
  if (rq) req->uri = pblock_findval("uri", rq->reqpb);
  if (rq) req->method = pblock_findval("method", rq->reqpb);
  // The defaults of the record are not the host's: soTimeouts are what the Init line
  // says, and zeroes while that is still being read.
  req->connectTimeout = soTimeouts[0];
  req->sendTimeout = soTimeouts[1];
  req->recvTimeout = soTimeouts[2];
}
