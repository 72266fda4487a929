#include "nsapi/outcome.h"

#include <nsapi.h>

#include <charconv>
#include <cstring>
#include <iterator>

#include "nsapi/host_objects.h"
#include "proxy/vesk_proxy.h"

// By the value of `session`.
constexpr const char* kSessions[] = {"none", "kept", "moved", "new"};
constexpr char kMovedFrom[] = "moved:";
constexpr std::size_t kMovedLength = sizeof kMovedFrom - 1;

// By kind.
constexpr const char* kNames[] = {nullptr, "served", "broken", "failed", "declined"};

constexpr const char* kVariables[] = {"vesk-outcome", "vesk-server",   "vesk-state",
                                      "vesk-session", "vesk-attempts", "vesk-time"};

// A stage may run twice in one request: the last word counts. The first variable is there
// whenever one of the others is, so that one look is all that it most often takes.
static void dropEarlier(pblock* vars) {
  if (!pblock_findval(kVariables[0], vars)) return;
  for (const char* name : kVariables) dropParameter(name, vars);
}

// An empty text is none.
static void leave(pblock* vars, const char* name, const char* value) {
  if (*value) (void)pblock_nvinsert(name, value, vars);
}

static void leaveNumber(pblock* vars, const char* name, std::int64_t value) {
  char text[24] = "";
  *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
  leave(vars, name, text);
}

// Where no server has answered there is nothing to tell, whatever the browser brought.
static void leaveSession(pblock* vars, const veskOutcome& outcome) {
  const bool answered = outcome.kind == kOutcomeServed || outcome.kind == kOutcomeBroken;
  const char* text = answered ? kSessions[outcome.session] : "";
  char moved[kMovedLength + kProxyNameSize];
  if (answered && outcome.session == kSessionMoved && outcome.sessionOwner) {
    std::memcpy(moved, kMovedFrom, kMovedLength);
    std::memcpy(moved + kMovedLength, outcome.sessionOwner->name, kProxyNameSize);
    text = moved;
  }
  leave(vars, "vesk-session", text);
}

void leaveOutcome(const vesk_request* req) {
  const veskOutcome& outcome = req->outcome;
  pblock* vars = requestOf(req)->vars;
  const auto kind = static_cast<std::size_t>(outcome.kind);
  // Without a word at all a host goes by the stage's result, as for any other plug-in.
  if (kind >= std::size(kNames) || !kNames[kind]) return;
  dropEarlier(vars);
  leave(vars, "vesk-outcome", kNames[kind]);
  leave(vars, "vesk-server", outcome.server);
  leave(vars, "vesk-state", outcome.state);
  leaveSession(vars, outcome);
  // As text, since the API's own numbers are ints, and microseconds soon are more.
  leaveNumber(vars, "vesk-attempts", outcome.attempts);
  leaveNumber(vars, "vesk-time", outcome.micros);
}
