// Times as they are shown.
//
// Pure functions: any thread. Failure: none.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace ctl {

// "14:03:05" of the local day.
[[nodiscard]] std::string clockText(std::time_t time);

// "41s", "3m20s", "3h12m" or "2d4h".
[[nodiscard]] std::string durationText(std::int64_t seconds);

// Milliseconds with two digits behind the point, without a unit.
[[nodiscard]] std::string millisText(double millis);

}  // namespace ctl
