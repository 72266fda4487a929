#include "nsapi/option_texts.h"

#include <cstdio>
#include <cstring>

#include "context/events.h"
#include "context/guards.h"
#include "context/sockets.h"
#include "nsapi/response_path.h"

static void row(OptionTexts* options, const char* name, const char* value) {
  if (options->count < kOptionRows)
    options->rows[options->count++] = {name, value ? value : "not set"};
}

static void number(OptionTexts* options, const char* name, std::int64_t value) {
  if (options->count >= kOptionRows) return;
  char* text = options->texts[options->count];
  (void)std::snprintf(text, kOptionTextSize, "%lld", static_cast<long long>(value));
  row(options, name, text);
}

static void truth(OptionTexts* options, const char* name, bool value) {
  row(options, name, value ? "true" : "false");
}

static void guards(OptionTexts* options) {
  char* text = options->texts[options->count];
  std::int32_t used = 0;
  for (std::uint32_t i = 0; i < kGuardCount; ++i) {
    if ((veskGuards >> i & 1U) != 0 && used < kOptionTextSize - 1)
      used += std::snprintf(text + used, static_cast<std::size_t>(kOptionTextSize - used),
                            used > 0 ? ",%s" : "%s", kGuards[i].name);
  }
  row(options, "guards", used > 0 ? text : "none");
}

// In the order of the manual.
void describeOptions(const mappingsTable* table, OptionTexts* options) {
  constexpr std::int64_t kMillisPerSecond = 1000;
  options->count = 0;
  row(options, "bootstrap", table ? table->bootstrapServer : nullptr);
  row(options, "serverstore", table ? table->serverStore : nullptr);
  guards(options);
  truth(options, "events", eventsOn());
  number(options, "connecttimeout", soTimeouts[0] / kMillisPerSecond);
  number(options, "sendtimeout", soTimeouts[1] / kMillisPerSecond);
  number(options, "recvtimeout", soTimeouts[2] / kMillisPerSecond);
  number(options, "requesttimeout", veskRequestTimeout);
  number(options, "idletimeout", veskIdleTimeout);
  number(options, "maintenancetimeout", veskMaintenanceTimeout);
  number(options, "maxperserver", veskMaxPerServer);
  number(options, "proxyretryinterval", table ? table->proxyRetryInterval : 0);
  row(options, "errorurl", errorUrl);
  truth(options, "ignoresuffixmap", table && table->ignoreSuffix != 0);
  truth(options, "apialloc", veskUseApiAlloc != 0);
  truth(options, "metrics", veskMetrics != 0);
  truth(options, "verbose", veskNSAPIVerbose != 0);
  number(options, "traceflags", static_cast<std::int64_t>(veskEnabledTraceFlags));
}
