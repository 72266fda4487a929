#include "maptable/vesk_session.h"

#include <cstring>

#include "context/memory.h"

// From the start of the name to the value: the name and one separator.
constexpr std::size_t kValueOffset = sizeof(kSessionName);
constexpr char kBuddyMark[] = "TR";
constexpr std::size_t kBuddyMarkLength = sizeof(kBuddyMark) - 1;

// Where the value begins that belongs to the first name in `text`; null without a
// name, and when the text ends before a value could begin.
static const char* findValue(const char* text) {
  const char* name = std::strstr(text, kSessionName);
  if (!name || std::strlen(name) < kValueOffset) return nullptr;
  return name + kValueOffset;
}

// Later cookies stay behind the id: servers that set it expect it back this way.
static char* sessionFromCookie(vesk_request* req, const char* cookie) {
  const char* value = findValue(cookie);
  return value ? req->strdup(req, value) : nullptr;
}

static char* sessionFromUri(vesk_request* req, const char* uri) {
  const char* value = findValue(uri);
  if (!value) return nullptr;
  // A separator that is the ';' itself: the name stands there without a value.
  if (value[-1] == ';') return nullptr;
  return copyText(req, {value, std::strcspn(value, ";")});
}

// A cookie header without an id hides one in the URI: a browser that takes cookies has
// been given its id by cookie, and what is in the URI may be an old link.
char* getSessionId(vesk_request* req) {
  const char* cookie = req->getHeader(req, "cookie");
  if (cookie) {
    char* session = sessionFromCookie(req, cookie);
    req->freeHeader(req, cookie);
    return session;
  }
  return req->uri ? sessionFromUri(req, req->uri) : nullptr;
}

// An empty id would own every session by a comparison of its first characters.
bool ownsSession(const char* replicationId, const char* sessionId) {
  return replicationId && *replicationId &&
         std::strncmp(replicationId, sessionId, kReplicationIdLength) == 0;
}

std::string_view ownPart(const char* sessionId) {
  const std::string_view id(sessionId, std::strcspn(sessionId, "; "));
  return id.substr(0, id.find(kBuddyMark));
}

// The mark may stand anywhere, even within the owner's four bytes: that is how servers
// have always read it.
static const char* firstBuddy(const char* sessionId) {
  const char* mark = std::strstr(sessionId, kBuddyMark);
  if (!mark || std::strlen(mark) < kBuddyMarkLength + kReplicationIdLength)
    return nullptr;
  return mark + kBuddyMarkLength;
}

const char* getNextBuddy(const char* sessionId, const char* current) {
  if (!current) return firstBuddy(sessionId);
  constexpr std::size_t kTwoBuddies = 2 * std::size_t{kReplicationIdLength};
  if (std::strlen(current) < kTwoBuddies) return nullptr;
  return current + kReplicationIdLength;
}
