#include "context/vesk_request.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "context/attributes.h"
#include "context/platform.h"
#include "context/vesk_utils.h"

using BlockFunction = void* (*)(vesk_request*, std::int32_t);

std::int32_t veskNSAPIVerbose = 0;
std::uint64_t veskEnabledTraceFlags = 0;
std::int32_t veskUseApiAlloc = 0;
std::int32_t veskMetrics = 0;
std::int32_t soTimeouts[3] = {0, 0, 0};
vesk_request globalRequest;
std::uint8_t gShutdown = 0;

bool isShuttingDown() {
  return std::atomic_ref(gShutdown).load(std::memory_order_acquire) != 0;
}

void setShuttingDown(bool on) {
  std::atomic_ref(gShutdown).store(on ? 1 : 0, std::memory_order_release);
}

void gtod(timeval* now) {
  (void)gettimeofday(now, nullptr);
}

std::int64_t tvToMillis(const timeval* time) {
  return std::int64_t{time->tv_sec} * 1000 + std::int64_t{time->tv_usec} / 1000;
}

void* doMalloc(vesk_request* /*req*/, std::int32_t size) {
  return std::malloc(size > 0 ? static_cast<std::size_t>(size) : 1);
}

char* doStrdup(vesk_request* /*req*/, const char* text) {
  return ::strdup(text ? text : "");
}

void doFree(vesk_request* /*req*/, void* block) {
  std::free(block);
}

static void* veskMalloc(vesk_request* req, std::int32_t size) {
  void* block = doMalloc(req, size);
  if (!block) req->log(req, "malloc(%d) failed!", size);
  return block;
}

// A copy of `text`; null for null. A text that is too long for an allocator or
// can't be allocated gives null, too, and a log line about `operation`.
static char* copyText(vesk_request* req, const char* text, BlockFunction allocate,
                      const char* operation) {
  if (!text) return nullptr;
  const std::int64_t size = textLength(text) + 1;
  void* copy = nullptr;
  if (size <= INT_MAX) copy = allocate(req, static_cast<std::int32_t>(size));
  if (copy)
    return static_cast<char*>(std::memcpy(copy, text, static_cast<std::size_t>(size)));
  req->log(req, "%s(%d) failed!", operation, clampToInt32(size - 1));
  return nullptr;
}

static char* veskStrdup(vesk_request* req, const char* text) {
  return copyText(req, text, req->malloc, "strdup");
}

static char* veskPermStrdup(vesk_request* req, const char* text) {
  return copyText(req, text, req->permMalloc, "perm_strdup");
}

static void veskFree(vesk_request* req, void* block) {
  if (!block) {
    req->log(req, "free(null) !");
    return;
  }
  std::free(block);
}

static std::FILE* veskFileOpen(vesk_request* /*req*/, const char* path,
                               const char* mode) {
  return std::fopen(path, mode);
}

static void veskFreeHeaderNoop(vesk_request* /*req*/, const char* /*value*/) {}
static void veskTraceNoop(vesk_request* /*req*/, const char* /*format*/, ...) {}
static void veskTraceENoop(vesk_request* /*req*/, std::uint64_t /*flags*/,
                           const char* /*format*/, ...) {}
static void doTrace(vesk_request* /*req*/, const char* /*format*/, ...) {}

static void installAttributeOperations(vesk_request* req) {
  req->getAttribute = getAttribute;
  req->getAttributeSize = getAttributeSize;
  req->getAttributeNames = getAttributeNames;
  req->setAttribute = setAttribute;
  req->freeAttributes = freeAttributes;
  req->freeAttributeNames = freeAttributeNames;
}

static void installAllocators(vesk_request* req) {
  req->malloc = veskMalloc;
  req->strdup = veskStrdup;
  req->free = veskFree;
  req->permMalloc = veskMalloc;
  req->permFree = veskFree;
  req->permStrdup = veskPermStrdup;
}

static void installSocketOperations(vesk_request* req) {
  req->connect = veskConnect;
  req->closeSocket = veskCloseSocket;
  req->send = veskSend;
  req->recv = veskRecv;
}

void init_vesk_request(vesk_request* req) {
  std::memset(req, 0, sizeof *req);
  timeval now;
  gtod(&now);
  req->startTime = tvToMillis(&now);

  req->freeHeader = veskFreeHeaderNoop;
  installAttributeOperations(req);
  installAllocators(req);
  req->fileOpen = veskFileOpen;
  req->log = veskTraceNoop;
  req->trace = veskTraceNoop;
  req->traceE = veskTraceENoop;
  installSocketOperations(req);

  req->connectorType = kConnectorNone;
  std::int32_t timeouts[3];
  initializeSocketTimeouts(req, timeouts);
  req->connectTimeout = timeouts[0];
  req->sendTimeout = timeouts[1];
  req->recvTimeout = timeouts[2];
}

void init_allocators(vesk_request* req) {
  std::memset(req, 0, sizeof *req);
  req->malloc = doMalloc;
  req->strdup = doStrdup;
  req->free = doFree;
  req->permMalloc = doMalloc;
  req->permFree = doFree;
  req->permStrdup = doStrdup;
  req->log = doTrace;
  req->trace = doTrace;
}

std::int32_t keepBlock(vesk_request* req, void* block) {
  auto* node = static_cast<veskKeptBlock*>(req->malloc(req, sizeof(veskKeptBlock)));
  if (!node) return -1;
  *node = {.next = req->keptBlocks, .block = block};
  req->keptBlocks = node;
  return 0;
}

void releaseKeptBlocks(vesk_request* req) {
  veskKeptBlock* node = req->keptBlocks;
  req->keptBlocks = nullptr;
  while (node) {
    veskKeptBlock* next = node->next;
    req->free(req, node->block);
    req->free(req, node);
    node = next;
  }
}
