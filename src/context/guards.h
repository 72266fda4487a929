// Guards: what the connector does beyond the protocol so that no server, browser or
// file harms anyone else.
//
// Each is off unless the option `guards` names it, and then the connector behaves as
// servers and web servers have always known it. This is the one place for their names,
// meanings and default; code that depends on one asks `guarded(req, Guard::name)`.
//
// Threads: the choice is made before the first request and copied into each record; from
// then on it is only read. Ownership: texts are constant. Failure: none.
#pragma once

#include <cstdint>
#include <string_view>

#include "context/vesk_request.h"

// In the order of their bits.
enum class Guard : std::uint32_t {
  latebytes,
  identity,
  attempt,
  partial,
  replay,
  comeback,
  blame,
  stall,
  privacy,
  idle,
  deadline,
};
constexpr std::uint32_t kGuardCount = 11;
constexpr std::uint32_t kNoGuards = 0;  // the default
constexpr std::uint32_t kAllGuards = (1U << kGuardCount) - 1;

// What the option names a guard, and what it does, in one line for its reader.
struct GuardRow {
  const char* name;
  const char* effect;
};
extern const GuardRow kGuards[kGuardCount];

// Whether a guard is on for this request.
[[nodiscard]] inline bool guarded(const vesk_request* req, Guard guard) {
  return (req->guards >> static_cast<std::uint32_t>(guard) & 1U) != 0;
}

// A value of the option, read: one bit a guard, and the first word that is no name,
// which points into the value; empty when all are.
struct GuardChoice {
  std::uint32_t mask;
  std::string_view unknown;
};

// Reads "all", "none", or names separated by commas, each of which may be taken back by
// "-name" behind "all". Blanks around a name don't count. A word that is no name is left
// out, and the rest counts.
[[nodiscard]] GuardChoice readGuards(std::string_view value);
