// How long a client may take over one direction of a request: a limit for each wait,
// and a least rate over all waits, since one that moves a byte every now and then
// would hold a thread for as long as it likes.
//
// Pure but for the clock: one thread at a time, no lock. Units: milliseconds, bytes.
#pragma once

#include <cstdint>

namespace host {

struct Patience {
  std::int64_t limit;       // for the client to move something
  std::int64_t leastRate;   // a second, over all waits beyond `limit`; 0: any
  std::int64_t waited = 0;  // so far
};

// Limits as the configuration has them, in seconds and bytes a second.
[[nodiscard]] Patience patienceOf(std::int64_t seconds, std::int64_t leastRate);

// True when a client that has moved so many bytes has kept the server waiting for too
// long.
[[nodiscard]] bool isOver(const Patience& patience, std::int64_t moved);

// A clock that nobody sets.
[[nodiscard]] std::int64_t steadyMillis();

}  // namespace host
