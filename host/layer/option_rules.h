// What each option of the connector's Init line may say: the one table that every
// check of a configuration reads.
//
// The connector itself takes what it can and goes on past the rest; here stands what
// the person who wrote the line should be told.
//
// Pure functions: any thread, no lock. Ownership: texts are constant or the caller's.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace host {

enum class OptionKind {
  seconds,    // a number from `least` to `most`
  count,      // the same, of something else than time
  exactTrue,  // "true" in this very case; all else means off
  anyTrue,    // "true" or "false" in any case
  hex,        // hexadecimal digits
  address,    // one "ip:port"
  path,       // of a file
  url,        // absolute, or a path on this site
  guards,     // names of guards
};

struct OptionRule {
  std::string_view name;
  OptionKind kind;
  std::int64_t least;
  std::int64_t most;
  std::string_view zero;  // what 0 means; empty: nothing good
};

[[nodiscard]] std::span<const OptionRule> optionRules();

// What is wrong with a value, as a text that begins with the option's name; empty when
// nothing is.
[[nodiscard]] std::string judgeOption(const OptionRule& rule, std::string_view value);

// The option whose name is nearest to a word that is none; empty when none is near.
[[nodiscard]] std::string_view nearestOption(std::string_view word);

}  // namespace host
