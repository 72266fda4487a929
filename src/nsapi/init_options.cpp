#include "nsapi/init_options.h"

#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "context/events.h"
#include "context/guards.h"
#include "context/sockets.h"
#include "context/text.h"
#include "nsapi/response_path.h"

// `verbose` is about the flags that there are; the mask has room for more.
constexpr std::uint64_t kAllTraceFlags = 0xFFFFFFFF;
constexpr std::int32_t kMillisPerSecond = 1000;
constexpr std::int32_t kMaxSeconds = INT_MAX / kMillisPerSecond;

// The switches for the log want the very word, those for the service take any case. A
// configuration may rest on either: where "TRUE" has been off, it stays off.
static bool isExactlyTrue(const char* value) {
  return value && std::strcmp(value, "true") == 0;
}

static bool equalsAnyCase(const char* value, const char* expected) {
  return value && strcasecmp(value, expected) == 0;
}

void readTraceOptions(pblock* pb) {
  const bool verbose = isExactlyTrue(pblock_findval("verbose", pb));
  veskNSAPIVerbose = verbose ? 1 : 0;
  veskEnabledTraceFlags = verbose ? kAllTraceFlags : 0;
  // Behind `verbose`, for it narrows down what that has switched on.
  const char* flags = pblock_findval("traceflags", pb);
  if (flags) veskEnabledTraceFlags = static_cast<std::uint64_t>(hexstrtol(flags));
  // The record for start-up is made next, and keeps the lasting memory.
  veskUseApiAlloc = 0;
  veskMetrics = isExactlyTrue(pblock_findval("metrics", pb)) ? 1 : 0;
}

static const char* spelled(bool on) {
  return on ? "true" : "false";
}

// A number from `least` to `most`; text without digits is 0. One that doesn't fit moves
// to the nearest that does: wrapped, it could say the opposite of what was meant.
static std::int32_t parseNumber(const char* option, const char* value, std::int32_t least,
                                std::int32_t most) {
  constexpr int kDecimal = 10;
  vesk_request* req = &globalRequest;
  const long number = std::strtol(value, nullptr, kDecimal);
  if (number >= least && number <= most) return static_cast<std::int32_t>(number);
  const std::int32_t nearest = number < least ? least : most;
  req->log(req, "%s %.100s is out of range, using %d", option, value, nearest);
  return nearest;
}

static void readTimeout(pblock* pb, const char* option, std::int32_t* millis) {
  vesk_request* req = &globalRequest;
  const char* value = pblock_findval(option, pb);
  // A negative time-out means that the wait has no limit.
  if (value)
    *millis = parseNumber(option, value, -kMaxSeconds, kMaxSeconds) * kMillisPerSecond;
  // What is in force, so that the defaults show as well.
  req->trace(req, "%s %d", option, *millis / kMillisPerSecond);
}

// Anything but the two words leaves the setting: a slip must not move all memory of all
// requests from one heap to the other.
static void readAllocOption(pblock* pb) {
  vesk_request* req = &globalRequest;
  const char* value = pblock_findval("apialloc", pb);
  if (equalsAnyCase(value, "true")) veskUseApiAlloc = 1;
  if (equalsAnyCase(value, "false")) veskUseApiAlloc = 0;
  req->trace(req, "apialloc %s", spelled(veskUseApiAlloc != 0));
}

static std::uint32_t readRetryInterval(pblock* pb) {
  vesk_request* req = &globalRequest;
  const char* value = pblock_findval("proxyretryinterval", pb);
  // A pause below nothing would have every request try a dead server first, while
  // all others wait for that.
  const std::int32_t seconds =
      value ? parseNumber("proxyretryinterval", value, 0, INT_MAX) : 0;
  req->trace(req, "proxyretryinterval %d", seconds);
  return static_cast<std::uint32_t>(seconds);
}

void readServiceOptions(pblock* pb, TableOptions* options) {
  vesk_request* req = &globalRequest;
  const bool ignore = equalsAnyCase(pblock_findval("ignoresuffixmap", pb), "true");
  options->ignoreSuffix = ignore ? 1 : 0;
  req->trace(req, "ignoresuffixmap %s", spelled(ignore));
  readAllocOption(pb);
  options->serverStore = pblock_findval("serverstore", pb);
  req->trace(req, "serverstore %.511s", orElse(options->serverStore, "<null>"));
  options->bootstrap = pblock_findval("bootstrap", pb);
  req->trace(req, "bootstrap %.511s", orElse(options->bootstrap, "<null>"));
  options->retryInterval = readRetryInterval(pb);

  // Set afresh, for a host may restart within one process with other options.
  initializeSocketTimeouts(req, soTimeouts);
  readTimeout(pb, "connecttimeout", &soTimeouts[0]);
  readTimeout(pb, "recvtimeout", &soTimeouts[2]);
  readTimeout(pb, "sendtimeout", &soTimeouts[1]);
}

static void reportUnknownGuard(vesk_request* req, std::string_view word) {
  char names[256] = "";
  std::size_t used = 0;
  for (const GuardRow& row : kGuards)
    used += static_cast<std::size_t>(
        std::snprintf(names + used, sizeof names - used, ", %s", row.name));
  constexpr std::size_t kMostShown = 100;
  req->log(req, "guards: \"%.*s\" is no name and is ignored; known are all, none%s",
           static_cast<int>(std::min(word.size(), kMostShown)), word.data(), names);
}

static void readGuardNames(pblock* pb) {
  vesk_request* req = &globalRequest;
  const char* value = pblock_findval("guards", pb);
  const GuardChoice choice = readGuards(orElse(value, ""));
  veskGuards = choice.mask;
  req->guards = choice.mask;
  if (value) req->trace(req, "guards %.255s", value);
  if (!choice.unknown.empty()) reportUnknownGuard(req, choice.unknown);
}

// A limit from 0, in seconds or as a count; the default where the option isn't given.
static std::int32_t readLimit(pblock* pb, const char* option, std::int32_t absent) {
  const char* value = pblock_findval(option, pb);
  if (!value) return absent;
  const std::int32_t number = parseNumber(option, value, 0, kMaxSeconds);
  globalRequest.trace(&globalRequest, "%s %d", option, number);
  return number;
}

void readGuardOptions(pblock* pb) {
  readGuardNames(pb);
  veskIdleTimeout = readLimit(pb, "idletimeout", kDefaultIdleTimeout);
  veskRequestTimeout = readLimit(pb, "requesttimeout", 0);
  veskMaxPerServer = readLimit(pb, "maxperserver", 0);
  // Without an end, one server could hold up all that is asked about the others.
  const std::int32_t seconds = readLimit(pb, "maintenancetimeout", 0);
  veskMaintenanceTimeout = seconds > 0 ? seconds : kDefaultMaintenanceTimeout;
}

void readEventOption(pblock* pb) {
  vesk_request* req = &globalRequest;
  if (!isExactlyTrue(pblock_findval("events", pb))) return closeEvents(req);
  req->trace(req, "events true");
  openEvents(req);
}

int readSharedMemory(pblock* pb) {
  const char* value = pblock_findval("host-shared-memory", pb);
  return value ? parseNumber("host-shared-memory", value, 0, INT_MAX) : -1;
}

void readErrorUrl(pblock* pb) {
  vesk_request* req = &globalRequest;
  errorUrl = pblock_findval("errorurl", pb);
  req->trace(req, "errorurl %s", orElse(errorUrl, "<null>"));
}
