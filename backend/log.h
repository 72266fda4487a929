// Log lines on standard error: time, process, peer, what happened.
//
// Threads: any; each line leaves in one write.
#pragma once

#include <string_view>

namespace backend {

// Writes one line. Control characters come out as \xNN, so that what a peer
// sent can't forge a second line. An empty `peer` is left out.
void logLine(std::string_view peer, std::string_view text);

}  // namespace backend
