#include "nsapi/host_log.h"

#include <nsapi.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "context/guards.h"
#include "context/privacy.h"
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
  // Here, where all lines pass: a URI with a session's id may stand in any of them.
  if (guarded(req, Guard::privacy)) hideSessionIds(text);

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

// A block in the form that hosts give it, with secrets covered; what doesn't fit into a
// line is left out. The host's own text would have to be taken apart again for that.
static const char* coveredText(const vesk_request* req, const pblock* block, char* text) {
  BlockWalk walk{block, 0, nullptr};
  int used = 0;
  text[0] = '\0';
  while (const pb_param* param = used < kLogTextSize ? nextParameter(&walk) : nullptr)
    used += std::snprintf(text + used, static_cast<std::size_t>(kLogTextSize - used),
                          "%s%s=\"%s\"", used > 0 ? " " : "", param->name,
                          shownValue(req, param->name, param->value));
  return text;
}

// The host's text is request memory, which it takes back by itself.
static const char* blockText(const vesk_request* req, pblock* block, char* buffer) {
  return guarded(req, Guard::privacy) ? coveredText(req, block, buffer)
                                      : pblock_pblock2str(block, nullptr);
}

void dumpHeaders(vesk_request* req, const char* label) {
  // Through `log`, so that a dump doesn't need `verbose` as well; hence the test here.
  if ((veskEnabledTraceFlags & kTraceDump) == 0) return;
  const Request* rq = requestOf(req);
  char buffer[kLogTextSize];
  const char* vars = blockText(req, rq->vars, buffer);
  if (vars) req->log(req, "%s: vars: %s", label, vars);
  const char* headers = blockText(req, rq->srvhdrs, buffer);
  if (headers && *headers) req->log(req, "%s: srvhdrs: %s", label, headers);
}
