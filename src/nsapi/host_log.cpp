#include "nsapi/host_log.h"

#include <nsapi.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "nsapi/host_objects.h"

// Bytes of a line, with the NUL. The frame holds it: a log line must come out when
// memory doesn't.
constexpr int kLogTextSize = 1021;

std::int32_t loglevel = LOG_INFORM;

// Relaxed: a line that is written while the degree changes may have either.
void setLogLevel(std::int32_t level) {
  std::atomic_ref(loglevel).store(level, std::memory_order_relaxed);
}

[[gnu::format(printf, 2, 0)]] static void WriteToLogHelper(vesk_request* req,
                                                           const char* format,
                                                           va_list args) {
  // Clear, for a formatting that breaks off need not end what it wrote.
  char text[kLogTextSize + 1] = "";
  const int length = std::vsnprintf(text, kLogTextSize, format, args);
  // Half a line tells more than none.
  if (length < 0) text[kLogTextSize] = '\0';
  if (length >= 0 && text[0] == '\0') return;

  const std::int32_t degree = std::atomic_ref(loglevel).load(std::memory_order_relaxed);
  // As an argument, not as the format: the text holds what peers sent.
  (void)log_error(degree, req->logPrefix, sessionOf(req), requestOf(req), "%s", text);
}

void WriteToLog(vesk_request* req, const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteToLogHelper(req, format, args);
  va_end(args);
}

void WriteToLogE(vesk_request* req, std::uint64_t flags, const char* format, ...) {
  if ((flags & veskEnabledTraceFlags) == 0) return;
  va_list args;
  va_start(args, format);
  WriteToLogHelper(req, format, args);
  va_end(args);
}

void dumpHeaders(vesk_request* req, const char* label) {
  // Through `log`, so that a dump doesn't need `verbose` as well; hence the test here.
  if ((veskEnabledTraceFlags & kTraceDump) == 0) return;
  const Request* rq = requestOf(req);
  // The texts are request memory, which the host takes back by itself.
  const char* vars = pblock_pblock2str(rq->vars, nullptr);
  if (vars) req->log(req, "%s: vars: %s", label, vars);
  const char* headers = pblock_pblock2str(rq->srvhdrs, nullptr);
  if (headers && *headers) req->log(req, "%s: srvhdrs: %s", label, headers);
}
