// Mappings that no request can reach, and an error page that leads back to itself.
//
// A mapping is tried with URIs made for it, by the match that requests go through. What
// the web server takes before the connector is asked is known as far as it stands in a
// line: places without plug-ins, proxied and redirected ones, and a function that stands
// before the connector's.
//
// Threads: one. Failure: none.
#pragma once

#include "ctl/configured_table.h"
#include "ctl/server_check.h"

namespace ctl {

[[nodiscard]] std::vector<Remark> judgeMappings(ConfiguredTable& table,
                                                const Configuration& configuration);

}  // namespace ctl
