// The session id that a browser carries, and the buddies named in it.
//
// An id is read as text: the replication id of its owner (4 bytes), anything,
// then "TR" and the replication ids of backup servers, 4 bytes each. A buddy that
// begins with '*' stands for any server in service.
//
// Ownership: getSessionId gives a new text; buddies point into it.
// Threads: the request's own; no lock. Failure: null. Units: bytes.
#pragma once

#include <string_view>

#include "context/vesk_request.h"

constexpr char kSessionName[] = "JSESSIONID";

// Bytes that count of a replication id, and the length of one buddy.
constexpr int kReplicationIdLength = 4;
constexpr char kAnyBuddy = '*';

// The id in the cookie header, or, only when there is no such header, in the URI.
// Null when there is none, when the text ends with the name, or without memory.
// The caller gives it back with `free` of the request.
[[nodiscard]] char* getSessionId(vesk_request* req);

// Whether a server of this replication id owns a session, by the id of the session or by
// one of the buddies in it. `replicationId` may be null.
[[nodiscard]] bool ownsSession(const char* replicationId, const char* sessionId);

// The part of an id that makes the session: neither buddies nor what stands behind it. A
// reference into `sessionId`.
[[nodiscard]] std::string_view ownPart(const char* sessionId);

// The first buddy of a session id, or, where `current` isn't null, the one behind that;
// null at the end. The result is no text of its own: only its first 4 bytes count.
[[nodiscard]] const char* getNextBuddy(const char* sessionId, const char* current);
