// Log lines on standard error: time, process, peer, what happened.
//
// Ownership: nothing is kept. Threads: any; each line leaves in one write, so
// that lines never mix, and no lock is needed.
// Errors: a line that can't be written is lost; a text of over 2000 bytes is
// cut.
#pragma once

#include <string_view>

namespace backend {

// Writes one line. Control characters come out as \xNN, so that what a peer
// sent can't forge a second line. An empty `peer` is left out.
void logLine(std::string_view peer, std::string_view text);

}  // namespace backend
