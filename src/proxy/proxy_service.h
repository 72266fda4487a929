// One attempt to serve a request on one server.
//
//   build frame --> sendCommand --> serve commands --> PROXY_FINISH: pooled, 0
//        |               |                |
//        +---------------+----------------+--> proxyerror, connection gone, -1
//
// Nothing that has reached the browser is taken back, and no count is kept of it.
// Threads: the request's own; the proxy's `lock` is taken inside the pool only.
// Failure: -1 after proxyerror, with the reason in lastError.
#pragma once

#include "proxy/vesk_proxy.h"

// Consecutive failed writes to the browser before an attempt is given up.
constexpr std::int32_t kMaxClientWriteFailures = 5;

// The `handleRequest` operation: 0 when the server sent PROXY_FINISH; lastError is
// no sign of failure then. `extra` and `sequence` may be null; `sequence` gets the
// last number of the cluster's list that the server sent, or -1. Blocks.
[[nodiscard]] std::int32_t proxy_handleRequest(vesk_request* req, veskProxy* proxy,
                                               const char* extra, std::int32_t* sequence);
