// The server for one attempt of a request: the session's owner, or by algorithm.
//
// Three notions of health meet here. An entry's `active` flag says that the server
// takes part in a list, and decides the algorithms. The proxy's own `active` says
// that it is believed in service, and decides for sessions. A running retry timer
// only shows in a trace line.
//
// Threads: REQUIRES tableMutex, all of it but tryAnotherProxy.
// Failure: null or -1; the caller answers the browser.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// The servers that have failed for one request, in that order, then null.
constexpr std::int32_t kFailedTargets = kMaxProxies + 1;

// The chosen server, or null. A mapping's only server is chosen in any state.
[[nodiscard]] veskProxy* selectProxy(mappingsTable* table, vesk_request* req,
                                     std::int32_t index);

// The server in service that owns the request's session, or its first buddy that
// is; null when there is none. `sessionId` is not null.
[[nodiscard]] veskProxy* resolveServerId(mappingsTable* table, vesk_request* req,
                                         std::int32_t index);

// Looks for a server of a mapping that has none active: 0 when one was activated
// after a ping, or brought by the bootstrap server, else -1. Blocks on the servers, and
// on the bootstrap server, which may add mappings in front of this one.
[[nodiscard]] std::int32_t lastDitchFindReachableServer(mappingsTable* table,
                                                        vesk_request* req,
                                                        std::int32_t index,
                                                        veskProxy** failedTargets);

// 1 when `proxy` has not failed for this request yet; `record` 1 notes it as
// failed. 0 when it has, and always outside a cluster.
[[nodiscard]] std::int32_t tryAnotherProxy(vesk_request* req, mappingsTable* table,
                                           veskProxy** failedTargets, veskProxy* proxy,
                                           std::uint32_t record);
