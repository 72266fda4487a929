// Where the head of a request ends, found while its bytes come in pieces.
//
// The scan looks at line ends only, so that it costs little however the bytes
// come; what the lines say is judged once the head is there (request_head.h).
//
// Ownership: a record of its own; the bytes are the caller's. Threads: one at a
// time. Errors: a value. Units: bytes.
#pragma once

#include <cstddef>
#include <string_view>

namespace host {

enum class HeadState {
  incomplete,  // go on when more has come
  complete,    // `size` is the head's, with its empty line
  malformed,   // no further byte can make a head of it
  tooLong,     // beyond the limit
  uriTooLong,  // beyond the limit within the first line
};

struct HeadScan {
  HeadState state = HeadState::incomplete;
  std::size_t size = 0;  // so much has been looked at
  std::size_t line = 0;  // where the line begins that isn't complete
};

struct HeadSizes {
  std::size_t head;
  std::size_t firstLine;
};

// Goes on behind what was scanned before, unless that has settled it. `bytes` begins
// with the head and may hold more than it.
HeadState scanHead(HeadScan* scan, std::string_view bytes, const HeadSizes& limits);

// How many bytes of empty lines stand before a head: some clients send one
// behind a body, where it belongs to nothing.
[[nodiscard]] std::size_t emptyLines(std::string_view bytes);

}  // namespace host
