// An explanation of the connector's, for people and for programs.
//
// Threads: one. Failure: none.
#pragma once

#include <string>

#include "ctl/json_output.h"
#include "status/explain.h"

namespace ctl {

// Lines for a terminal, with all texts of strangers made harmless. Of a long row of
// mappings that failed alike only the first and the last are shown, unless `all` is set.
[[nodiscard]] std::string textOf(const Explanation& explained, bool all);

[[nodiscard]] Json jsonOf(const Explanation& explained);

}  // namespace ctl
