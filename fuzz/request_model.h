// What a strict reader makes of all that one client sends: slow, and written from
// RFC 9112 alone, byte by byte, to be compared with the one that serves.
//
// Ownership: none. Threads: any. Errors: a request that is refused is the last.
// Units: bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "http/limits.h"

struct SeenRequest {
  std::string told;  // method, target, fields, and of the body what could be read
  std::size_t end;   // where the next request begins; 0: nobody knows
  bool operator==(const SeenRequest&) const = default;
};

std::vector<SeenRequest> readStrictly(std::string_view bytes, const host::Limits& limits);
