// A proxy from its making to its end. This stands above all that a proxy can do, since
// it fills the record's operations.
//
//   New --initProxy--> Temp ---------------------+
//    |                                           v
//    +--initProxy--> In service <--> Out of   proxy_destroyInetProxy: gone
//    |                           service         ^
//    +--initProxy fails--> Failed ---------------+
//
// Ownership: a failed initProxy leaves the record as far as it got; whoever made
// the proxy destroys it, once, and that copes with every partial state.
// Threads: the one that made the proxy; it is not published yet, or no longer.
// Failure: null or -1, with a log line; lastError as the operations leave it.
#pragma once

#include "proxy/vesk_proxy.h"

// The longest text before the ':' of a server text; a dotted address fits.
constexpr std::int32_t kMaxHostLength = 39;

// A new proxy with one reference, or null when memory or the host's locks run out.
[[nodiscard]] veskProxy* veskProxyNew(vesk_request* req);

// The `initProxy` operation: 0, or -1 with a log line. `retryInterval` stands in
// for what the server doesn't say, in seconds; 0 means the default. On a proxy
// that has a pool already it changes nothing and gives 0. Blocks unless `temp`.
[[nodiscard]] std::int32_t initProxy(veskProxy* proxy, vesk_request* req,
                                     const char* server, std::int32_t retryInterval,
                                     std::int32_t temp);

// The `destroyInetProxy` operation: gives up the caller's reference and frees the
// proxy with the last one, its idle connections closed. The count left; at 0 the
// proxy is gone. Takes `lock`; leaves lastError alone.
std::int32_t proxy_destroyInetProxy(veskProxy* proxy, vesk_request* req);
