#include "nsapi/outcome.h"

#include <nsapi.h>

#include <charconv>
#include <iterator>

#include "nsapi/host_objects.h"

// By kind.
constexpr const char* kNames[] = {nullptr, "served", "broken", "failed", "declined"};

// A stage may run twice in one request: the last word counts. An empty text is none.
static void leave(pblock* vars, const char* name, const char* value) {
  dropParameter(name, vars);
  if (*value) (void)pblock_nvinsert(name, value, vars);
}

static void leaveNumber(pblock* vars, const char* name, std::int64_t value) {
  char text[24] = "";
  *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
  leave(vars, name, text);
}

void leaveOutcome(const vesk_request* req) {
  const veskOutcome& outcome = req->outcome;
  pblock* vars = requestOf(req)->vars;
  const auto kind = static_cast<std::size_t>(outcome.kind);
  // Without a word at all a host goes by the stage's result, as for any other plug-in.
  if (kind >= std::size(kNames) || !kNames[kind]) return;
  leave(vars, "vesk-outcome", kNames[kind]);
  leave(vars, "vesk-server", outcome.server);
  leave(vars, "vesk-state", outcome.state);
  // As text, since the API's own numbers are ints, and microseconds soon are more.
  leaveNumber(vars, "vesk-attempts", outcome.attempts);
  leaveNumber(vars, "vesk-time", outcome.micros);
}
