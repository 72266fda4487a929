// How long and how large: the limits that keep a client within bounds.
//
// Ownership: a record of the configuration. Threads: written before the first
// client, read only since. Errors: none.
// Units: bytes and whole seconds, unless a field says otherwise.
#pragma once

#include <cstdint>

namespace host {

struct Limits {
  std::int64_t threads = 64;            // requests at work at once
  std::int64_t maxConnections = 4096;   // clients at once
  std::int64_t requestHead = 32 << 10;  // a head as a whole
  std::int64_t requestFields = 100;     // header lines of a head
  std::int64_t requestUri = 16 << 10;   // a target
  std::int64_t requestBody = 0;         // a body; 0: no limit
  std::int64_t trailers = 8 << 10;      // all trailers of a body, or a chunk's line
  std::int64_t headTimeout = 20;        // from a head's first byte to its last
  std::int64_t bodyTimeout = 20;        // between two reads of a body
  std::int64_t minBodyRate = 500;       // bytes a second of waiting; 0: no limit
  std::int64_t keepAliveTimeout = 15;   // between two requests; 0: one request each
  std::int64_t sendTimeout = 60;        // for the client to take something
  std::int64_t minSendRate = 500;       // bytes a second of waiting; 0: no limit
  std::int64_t stopTimeout = 10;        // for running requests to end
};

}  // namespace host
