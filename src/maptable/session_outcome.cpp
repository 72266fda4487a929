#include "maptable/session_outcome.h"

#include <cstring>

#include "maptable/vesk_session.h"

// By what the server says of itself, and not by how it was chosen: without stickiness a
// request comes to its session's server by chance, and is kept there all the same.
void beginSession(vesk_request* req, const veskProxy* proxy) {
  veskOutcome* outcome = &req->outcome;
  outcome->session = kSessionNone;
  if (!req->sessionId) return;
  outcome->session = kSessionMoved;
  if (!ownsSession(proxy->balance->replicationId, req->sessionId)) return;
  outcome->session = kSessionKept;
  // Should the attempt fail, the session has been moved from here.
  outcome->sessionOwner = proxy;
}

// Where the cookie begins with the session's name, the id in it; else null.
static const char* idInCookie(const char* cookie) {
  constexpr std::size_t kLength = sizeof kSessionName - 1;
  if (std::strncmp(cookie, kSessionName, kLength) != 0) return nullptr;
  return cookie[kLength] == '=' ? cookie + kLength + 1 : nullptr;
}

// A server that takes over a session gives it an id of its own: that is still the old
// one, moved. An owner may name other buddies, which makes no new one either; and an
// empty id ends a session.
void noteSessionCookie(vesk_request* req, const char* cookie) {
  const char* id = idInCookie(cookie);
  if (!id || req->outcome.session == kSessionMoved || ownPart(id).empty()) return;
  if (req->sessionId && ownPart(req->sessionId) == ownPart(id)) return;
  req->outcome.session = kSessionNew;
}
