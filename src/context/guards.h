// Guards: what the connector does beyond the protocol so that no server, browser or
// file harms anyone else.
//
// Each is off unless the option `guards` names it, and then the connector behaves as
// servers and web servers have always known it.
//
// Threads: the choice is made before the first request and copied into each record; from
// then on it is only read. Ownership: none. Failure: none.
#pragma once

#include "context/guard_names.h"
#include "context/vesk_request.h"

// Whether a guard is on for this request.
[[nodiscard]] inline bool guarded(const vesk_request* req, Guard guard) {
  return (req->guards >> static_cast<std::uint32_t>(guard) & 1U) != 0;
}
