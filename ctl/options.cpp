#include "ctl/options.h"

#include <algorithm>

namespace ctl {

void addTimeout(CLI::App& command, double& seconds) {
  constexpr double kLeast = 0.001;
  command.add_option("--timeout", seconds, "Seconds that an answer may take")
      ->check(CLI::Range(kLeast, kMostSeconds))
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
