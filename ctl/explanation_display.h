// An explanation of the connector's as JSON, and as lines for people.
//
// The JSON is of the shape in which a web server's status page gives its explanations, so
// that both are shown by the same lines.
//
// Threads: one. Failure: a JSON of another shape throws.
#pragma once

#include <string>

#include "ctl/json_output.h"
#include "status/explain.h"

namespace ctl {

[[nodiscard]] Json jsonOf(const Explanation& explained);

// Lines for a terminal, with all texts of strangers made harmless. Of a long row of
// mappings that failed alike only the first are shown, unless `all` is set.
[[nodiscard]] std::string textOf(const Json& explained, bool all);

}  // namespace ctl
