// Session ids: 4 characters of the owner's replication id, an id of letters and
// digits, "TR", and 4 characters for each buddy.
//
//   s001 2f9c...e1 TR s002****
//
// Pure functions but for randomSessionPart: any thread, no lock. Ownership:
// results are the caller's.
// Errors: nothing, for a text that is no id; std::runtime_error when the system
// has no random bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/wire/request.h"

namespace backend {

// Characters of a replication id that count in a session id.
constexpr std::size_t kRepIdLength = 4;

struct SessionId {
  std::string owner;    // kRepIdLength characters
  std::string id;       // what stays when the session moves to another server
  std::string buddies;  // as they stand behind "TR", maybe empty
};

// The replication id of a server that was given none. Ports differ, so do
// these: four digits up to 9999, above that a 'p' and three base-36 digits.
// Neither can hold "TR", which would look like the start of the buddies.
[[nodiscard]] std::string repIdOfPort(int port);

// The buddy part: each name cut or filled with '*' to kRepIdLength characters.
[[nodiscard]] std::string buddyText(const std::vector<std::string>& names);

[[nodiscard]] std::string sessionIdText(const SessionId& session);

// Takes an id apart; nothing when it isn't one of a server like this.
[[nodiscard]] std::optional<SessionId> parseSessionId(std::string_view text);

// The session id that a request carries: of a JSESSIONID cookie, else the one
// that the web server's side found, cut where a cookie or path parameter ends.
[[nodiscard]] std::optional<SessionId> sessionIdOf(const ServiceRequest& request);

// 24 hexadecimal digits that nobody can guess.
[[nodiscard]] std::string randomSessionPart();

}  // namespace backend
