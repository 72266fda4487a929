#include "context/request_setup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "context/attributes.h"
#include "context/clock.h"
#include "context/memory.h"
#include "context/sockets.h"

static int openFlags(const char* mode) {
  if (*mode == 'w') return O_WRONLY | O_CREAT | O_TRUNC;
  return *mode == 'a' ? O_WRONLY | O_CREAT | O_APPEND : O_RDONLY;
}

// A folder opens, and can't be read: the reader tells of it.
static bool isUsableFile(int file) {
  struct stat status;
  if (fstat(file, &status) != 0) return false;
  if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) return true;
  errno = ENOTSUP;
  return false;
}

static void closeKeepingError(int file) {
  const int cause = errno;
  (void)close(file);
  errno = cause;
}

// Not to wait for whoever is at the other end of a FIFO or a device, and neither is a
// file that keeps anything. Closed on exec: a program that the web server starts must not
// hold the file.
static std::FILE* veskFileOpen(vesk_request* /*req*/, const char* path,
                               const char* mode) {
  constexpr mode_t kAnyone = 0666;  // but for the process's mask
  constexpr int kHarmless = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  const int file = open(path, openFlags(mode) | kHarmless, kAnyone);
  if (file < 0) return nullptr;
  std::FILE* stream = isUsableFile(file) ? fdopen(file, mode) : nullptr;
  if (!stream) closeKeepingError(file);
  return stream;
}

// A grade of logging that is off is an empty function, so that nobody tests first.
static void veskFreeHeaderNoop(vesk_request* /*req*/, const char* /*value*/) {}
static void veskResponseNoop(vesk_request* /*req*/) {}
static void veskTraceNoop(vesk_request* /*req*/, const char* /*format*/, ...) {}
static void veskTraceENoop(vesk_request* /*req*/, std::uint64_t /*flags*/,
                           const char* /*format*/, ...) {}
static void doTrace(vesk_request* /*req*/, const char* /*format*/, ...) {}

bool isTraced(const vesk_request* req) {
  return req->trace != veskTraceNoop;
}

static void installAttributeOperations(vesk_request* req) {
  req->getAttribute = getAttribute;
  req->getAttributeSize = getAttributeSize;
  req->getAttributeNames = getAttributeNames;
  req->setAttribute = setAttribute;
  req->freeAttributes = freeAttributes;
  req->freeAttributeNames = freeAttributeNames;
}

// The same heap serves both grades here; a connector layer may give the request a pool.
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
  req->peek = veskPeek;
}

void init_vesk_request(vesk_request* req) {
  // The record is a local of a stage: whatever the stack held must not pass for a
  // pointer.
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
  req->markResponse = veskResponseNoop;
  req->restoreResponse = veskResponseNoop;
  req->now = wallClockSeconds;
  req->ticks = monotonicMillis;
  req->guards = veskGuards;

  // The six host operations stay null on purpose: a record that was never given to a
  // connector layer must fail at once, and not answer for a browser that isn't there.
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
