#include "ctl/options.h"

#include <algorithm>
#include <cstdlib>

namespace ctl {

// A range alone takes "nan", which is neither below nor above anything.
CLI::Validator secondsFrom(double least) {
  const auto judge = [least](const std::string& text) -> std::string {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    const bool fits = *end == '\0' && seconds >= least && seconds <= kMostSeconds;
    return fits ? ""
                : "Value " + text + " not in range " + CLI::detail::to_string(least) +
                      " to " + CLI::detail::to_string(kMostSeconds);
  };
  return CLI::Validator(judge, "SECONDS");
}

void addTimeout(CLI::App& command, double& seconds) {
  constexpr double kLeast = 0.001;
  command.add_option("--timeout", seconds, "Seconds that an answer may take")
      ->check(secondsFrom(kLeast))
      ->type_name("S")
      ->capture_default_str();
}

// A connect that takes longer than the default is none, however long a page may take.
Limits limitsOf(double seconds) {
  constexpr double kMillis = 1000;
  Limits limits;
  limits.conversation = static_cast<std::int32_t>(seconds * kMillis);
  limits.connect = std::min(limits.connect, limits.conversation);
  return limits;
}

}  // namespace ctl
