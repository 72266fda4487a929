// The dispatch table that plug-ins import, and the functions behind it. Each is
// a thin step to the request that the thread runs and its Exchange.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "layer/critical_sections.h"
#include "layer/parameters.h"
#include "layer/pool.h"
#include "layer/process_settings.h"
#include "layer/request.h"
#include "layer/restart_callbacks.h"
#include "layer/status.h"
#include "layer/uri.h"

namespace host {

// Longer log lines are formatted on the heap.
constexpr int kLogLineSize = 2048;

// A reason is one line of this many bytes at most.
constexpr std::size_t kMaxReason = 1000;

static Exchange* exchangeOf(SYS_NETFD socket) {
  return static_cast<Exchange*>(socket);
}

// Every Request that a plug-in is handed is the base of one of the layer's.
static HostRequest* requestOf(Request* rq) {
  return static_cast<HostRequest*>(rq);
}

static char* apiVersion() {
  return const_cast<char*>(serverVersion());
}

static void* apiMalloc(int size) {
  return requestMemory(size);
}

static void apiFree(void* block) {
  releasePoolBlock(block);
}

static char* apiStrdup(const char* text) {
  return requestText(text);
}

// Permanent memory is the plain heap's: it outlives every request, and nobody but
// the plug-in knows when it may go.
static void* apiMallocPerm(int size) {
  return size > 0 ? std::malloc(static_cast<std::size_t>(size)) : nullptr;
}

static void apiFreePerm(void* block) {
  std::free(block);
}

static char* apiStrdupPerm(const char* text) {
  return text ? strdup(text) : nullptr;
}

// The buffer is made by the first read, so that a request without a body needs
// none.
static bool haveInputBuffer(netbuf* buf) {
  if (buf->inbuf) return true;
  buf->inbuf = static_cast<unsigned char*>(requestMemory(kInputBufferSize));
  buf->maxsize = buf->inbuf ? kInputBufferSize : 0;
  return buf->inbuf != nullptr;
}

// Each call fills the buffer anew: what a plug-in has not taken is gone, as the
// API has it.
static int apiNetbufGrab(netbuf* buf, int size) {
  if (!buf || !buf->sd || size <= 0 || !haveInputBuffer(buf)) return -1;
  int count = exchangeOf(buf->sd)->readBody(buf->inbuf, std::min(size, buf->maxsize));
  buf->pos = 0;
  buf->cursize = std::max(count, 0);
  return count;
}

static CRITICAL apiCritInit() {
  return newCriticalSection();
}

static void apiCritEnter(CRITICAL section) {
  enterCriticalSection(section);
}

static void apiCritExit(CRITICAL section) {
  leaveCriticalSection(section);
}

static void apiAtRestart(void (*fn)(void*), void* data) {
  if (!addRestartCallback(fn, data)) {
    processLog(LOG_FAILURE, "daemon_atrestart", "the callback could not be kept");
  }
}

static int apiGetPeerName(SYS_NETFD socket, struct sockaddr* address, int* size) {
  sockaddr_in peer{};
  if (!socket || !address || !size || *size < static_cast<int>(sizeof(peer))) return -1;
  if (!exchangeOf(socket)->peer(&peer)) return -1;
  std::memcpy(address, &peer, sizeof(peer));
  *size = static_cast<int>(sizeof(peer));
  return 0;
}

// An empty block stops here: in a chunked body it would be the end.
static int apiNetWrite(SYS_NETFD socket, const char* buffer, int size) {
  if (!socket || !buffer || size < 0) {
    errno = EINVAL;
    return -1;
  }
  return size == 0 ? 0 : exchangeOf(socket)->writeBody(buffer, size);
}

static int apiParamFree(pb_param* param) {
  freeParameter(param);
  return param != nullptr;
}

static char* apiFindVal(const char* name, pblock* pb) {
  return findValue(pb, name);
}

static pb_param* apiInsert(const char* name, const char* value, pblock* pb) {
  return addParameter(pb, name, value);
}

static pb_param* apiInsertNumber(const char* name, int value, pblock* pb) {
  char digits[16];  // 11 characters at most
  *std::to_chars(digits, digits + sizeof(digits) - 1, value).ptr = '\0';
  return addParameter(pb, name, digits);
}

static char* apiWriteBlock(pblock* pb, char* text) {
  return writeParameters(pb, text);
}

static pb_param* apiFind(const char* name, pblock* pb, int remove) {
  return findParameter(pb, name, remove != 0);
}

static char* apiDnsLookup(Session* sn, int) {
  return sn && sn->csd ? exchangeOf(sn->csd)->clientName() : nullptr;
}

static int apiUriIsEvil(const char* uri) {
  return uri && uriIsEvil(uri);
}

static conf_global_vars_s* apiGlobals() {
  HostRequest* request = currentRequest();
  return request ? request->exchange->settings() : processSettings();
}

// A second head would go out in the middle of the body, and a request that was
// made to translate a URI has nobody to answer.
static int apiStartResponse(Session* sn, Request* rq) {
  if (!sn || !rq) return REQ_ABORTED;
  HostRequest* request = requestOf(rq);
  if (request->translateOnly || request->responseStarted) return REQ_ABORTED;
  return startResponse(request);
}

// Keeps a reason from ending the status line before its time.
static char* onOneLine(const char* reason) {
  char* copy = requestText(reason);
  if (!copy) return nullptr;
  if (std::strlen(copy) > kMaxReason) copy[kMaxReason] = '\0';
  for (char* c = copy; *c; ++c) {
    if (static_cast<unsigned char>(*c) < ' ' || *c == '\x7f') *c = ' ';
  }
  return copy;
}

static void apiStatus(Session*, Request* rq, int status, const char* reason) {
  if (!rq) return;
  if (status < kFirstStatus || status > kLastStatus) {
    char message[64];
    (void)std::snprintf(message, sizeof(message), "status %d replaced by %d", status,
                        kServerError);
    requestOf(rq)->exchange->log(LOG_FAILURE, "protocol_status", requestOf(rq), message);
    status = kServerError;
    reason = nullptr;
  }
  rq->status_num = static_cast<short>(status);
  requestOf(rq)->reason = reason ? onOneLine(reason) : nullptr;
}

// A plug-in may log without a request; the line then goes where those of the
// thread's request go.
static void logMessage(int degree, const char* function, Request* rq,
                       const char* message) {
  HostRequest* request = rq ? requestOf(rq) : currentRequest();
  if (request) {
    request->exchange->log(degree, function, request, message);
  } else {
    processLog(degree, function, message);
  }
}

[[gnu::format(printf, 5, 6)]] static int apiLogError(int degree, const char* function,
                                                     Session*, Request* rq,
                                                     const char* format, ...) {
  char line[kLogLineSize];
  va_list arguments;
  va_start(arguments, format);
  va_list again;  // for a line that must be formatted a second time
  va_copy(again, arguments);
  int size = std::vsnprintf(line, sizeof(line), format, arguments);
  char* longLine = nullptr;
  if (size >= kLogLineSize && vasprintf(&longLine, format, again) < 0) longLine = nullptr;
  va_end(again);
  va_end(arguments);
  if (size >= 0)
    logMessage(degree, function ? function : "", rq, longLine ? longLine : line);
  std::free(longLine);
  return size < 0 ? -1 : 0;
}

static char* apiTranslateUri(char* uri, Session* sn) {
  return uri && sn && sn->csd ? exchangeOf(sn->csd)->translateUri(uri, sn) : nullptr;
}

static nsapi_dispatch_t dispatchTable = {
    .f_system_version = apiVersion,
    .f_system_malloc = apiMalloc,
    .f_system_free = apiFree,
    .f_system_strdup = apiStrdup,
    .f_system_malloc_perm = apiMallocPerm,
    .f_system_free_perm = apiFreePerm,
    .f_system_strdup_perm = apiStrdupPerm,
    .f_netbuf_grab = apiNetbufGrab,
    .f_crit_init = apiCritInit,
    .f_crit_enter = apiCritEnter,
    .f_crit_exit = apiCritExit,
    .f_daemon_atrestart = apiAtRestart,
    .f_net_getpeername = apiGetPeerName,
    .f_net_write = apiNetWrite,
    .f_param_free = apiParamFree,
    .f_pblock_findval = apiFindVal,
    .f_pblock_nvinsert = apiInsert,
    .f_pblock_nninsert = apiInsertNumber,
    .f_pblock_pblock2str = apiWriteBlock,
    .f_pblock_fr = apiFind,
    .f_session_dns_lookup = apiDnsLookup,
    .f_util_uri_is_evil = apiUriIsEvil,
    .f_conf_getglobals = apiGlobals,
    .f_protocol_start_response = apiStartResponse,
    .f_protocol_status = apiStatus,
    .f_log_error = apiLogError,
    .f_request_translate_uri = apiTranslateUri,
};

}  // namespace host

extern "C" {
// The one symbol that a plug-in imports.
nsapi_dispatch_t* __nsapi30_table = &host::dispatchTable;
}
