// What the option `guards` may say: the one place for the guards' names, meanings and
// default. Code that depends on a guard asks `guarded` (guards.h).
//
// A web server's check of its configuration reads this file as well, hence by itself.
//
// Pure functions: any thread, no lock. Ownership: texts are constant. Failure: none.
#pragma once

#include <cstdint>
#include <string_view>

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
