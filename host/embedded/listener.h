// A socket that clients connect to.
//
// Ownership: the caller's, which closes `socket`. Threads: one. Errors: a text
// that names address and reason; empty for success.
#pragma once

#include <string>
#include <vector>

#include "embedded/config.h"
#include "http/client.h"

namespace host {

struct Listener {
  int socket = -1;
  LocalSide local{};
  std::string url;      // with the real port
  bool passed = false;  // by the service manager
};

// Gives a client's socket what it would have from its listener: clients of a passed
// one may be older than what was set there.
void prepareClient(int socket);

// Binds a socket for a Listen line, or takes the one that the service manager has
// passed for it. Clients are refused until startListening.
[[nodiscard]] std::string openListener(const ListenLine& line, Listener* listener);

[[nodiscard]] std::string startListening(const Listener& listener);

// The sockets that the service manager has passed and no Listen line has taken:
// the address of the first, or empty.
[[nodiscard]] std::string unclaimedSocket(const std::vector<Listener>& listeners);

}  // namespace host
