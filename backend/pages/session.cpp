// The page of the session: a counter.

#include <nlohmann/json.hpp>

#include "backend/pages/reply.h"
#include "backend/session_id.h"

namespace backend {

// How this server came to the session.
enum class Origin { fresh, known, restarted, adopted };

constexpr const char* kOriginNames[] = {"new", "known", "restarted", "adopted"};

struct Visit {
  SessionId session;
  Origin origin;
  std::string from;  // the owner before, when it was adopted
};

static std::string ownerPart(const PageCall& call) {
  return call.server.options.repId.substr(0, kRepIdLength);
}

// The session of the request under this server's name. The id stays when the
// session comes from elsewhere, so that one can follow it from server to
// server.
static Visit visitOf(const PageCall& call) {
  const std::string buddies = buddyText(call.server.options.buddies);
  const std::string owner = ownerPart(call);
  const std::optional<SessionId> came = sessionIdOf(call.request);
  if (!came) return {{owner, randomSessionPart(), buddies}, Origin::fresh, {}};
  if (came->owner != owner) {
    return {{owner, came->id, buddies}, Origin::adopted, came->owner};
  }
  const bool held = call.server.sessions.peek(came->id).has_value();
  return {{owner, came->id, buddies}, held ? Origin::known : Origin::restarted, {}};
}

static void endSession(const PageCall& call) {
  const std::optional<SessionId> came = sessionIdOf(call.request);
  if (came) call.server.sessions.forget(came->id);
  call.exchange.putHeader("Set-Cookie", "JSESSIONID=; Path=/; Max-Age=0; HttpOnly");
  sendJson(call, {{"server", serverFacts(call)}, {"session", nullptr}});
}

// session: counts the visits of a session and begins one where there is none;
// session?end=1 forgets it. A session that another server owned is taken over
// with its id; what was counted there stays there.
void showSession(const PageCall& call) {
  if (numberOf(call.query, "end", {0, 1, 0}) == 1) return endSession(call);
  const Visit visit = visitOf(call);
  const std::int64_t count = call.server.sessions.use(visit.session.id);
  const std::string id = sessionIdText(visit.session);
  if (visit.origin != Origin::known) {
    call.exchange.putHeader("Set-Cookie", "JSESSIONID=" + id + "; Path=/; HttpOnly");
  }
  nlohmann::ordered_json page;
  page["server"] = serverFacts(call);
  page["session"] = id;
  page["count"] = count;
  page["state"] = kOriginNames[static_cast<int>(visit.origin)];
  page["from"] = visit.from.empty() ? nlohmann::ordered_json(nullptr)
                                    : nlohmann::ordered_json(visit.from);
  sendJson(call, page);
}

}  // namespace backend
