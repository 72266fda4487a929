#include "nsapi/interface.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "context/request_setup.h"
#include "context/vesk_mutex.h"
#include "nsapi/host_log.h"
#include "nsapi/host_memory.h"
#include "nsapi/request_body.h"
#include "nsapi/request_variables.h"
#include "nsapi/response_path.h"

mappingsTable* pMappingsTable = nullptr;

mappingsTable* getMappingsTable() {
  return std::atomic_ref(pMappingsTable).load(std::memory_order_acquire);
}

void setMappingsTable(mappingsTable* table) {
  std::atomic_ref(pMappingsTable).store(table, std::memory_order_release);
}

static void* hostLockInit() {
  return crit_init();
}

static void hostLockEnter(void* lock) {
  crit_enter(static_cast<CRITICAL>(lock));
}

static void hostLockExit(void* lock) {
  crit_exit(static_cast<CRITICAL>(lock));
}

static constexpr LockOperations kHostLocks = {
    .init = hostLockInit, .enter = hostLockEnter, .exit = hostLockExit};

void installHostLocks() {
  installLockOperations(&kHostLocks);
}

// The client's TCP port; 0 when the host can't tell.
static int clientPort(Session* sn) {
  sockaddr_in address;
  std::memset(&address, 0, sizeof address);
  int size = sizeof address;
  auto* generic = static_cast<sockaddr*>(static_cast<void*>(&address));
  if (net_getpeername(sn->csd, generic, &size) < 0) return 0;
  return ntohs(address.sin_port);
}

static void setLogPrefix(vesk_request* req, Session* sn) {
  if (sn)
    (void)std::snprintf(req->logPrefix, sizeof req->logPrefix, "veskNSAPI[%d] ",
                        clientPort(sn));
  else
    (void)std::snprintf(req->logPrefix, sizeof req->logPrefix, "veskNSAPI[init] ");
}

static void installHostOperations(vesk_request* req) {
  req->getHeader = getHeader;
  req->getRealPath = getRealPath;
  req->getPostData = getPostData;
  req->setStatus = setStatus;
  req->addHeader = addHeader;
  req->writeClient = writeClient;
}

static void installHostAllocators(vesk_request* req) {
  const bool pool = veskUseApiAlloc != 0;
  req->malloc = pool ? nsapi_malloc : nsapi_perm_malloc;
  req->strdup = pool ? nsapi_strdup : nsapi_perm_strdup;
  req->free = pool ? nsapi_free : nsapi_perm_free;
  req->permMalloc = nsapi_perm_malloc;
  req->permFree = nsapi_perm_free;
  req->permStrdup = nsapi_perm_strdup;
}

// A grade that is off keeps the empty function.
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
  req->connectTimeout = soTimeouts[0];
  req->sendTimeout = soTimeouts[1];
  req->recvTimeout = soTimeouts[2];
}

bool isInternalType(const char* type) {
  constexpr char kPrefix[] = "vesk-internal/";
  return type && std::strncmp(type, kPrefix, sizeof kPrefix - 1) == 0;
}

void dropParameter(const char* name, pblock* block) {
  (void)param_free(pblock_remove(name, block));
}
