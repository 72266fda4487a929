// Whether a server may be used again, and whether it has new mappings.
//
// Nothing runs in the background: both are asked from inside ordinary requests,
// and two timers of the proxy keep a call on which nothing is due at one reading
// of the clock and two comparisons.
//
//   nextProxyRetryTime   0           the server is not marked unreachable
//                        future      retry pause
//                        past, now   a retry is due: a ping, or with the guard
//                                    `comeback` a question that must be answered
//   nextMapCheckTime     past, now   the next call refreshes
//                        future      nothing is due
//                        kNever      the interval is 0, and a refresh is running
//                                    or has succeeded
//
// Threads: any. `lock` of the proxy is held for tests of the timers and the swap
// of `mappings`, never across the network.
#pragma once

#include "proxy/vesk_proxy.h"

// Seconds to the next try after a failed refresh without an interval.
constexpr std::int32_t kRefreshRetrySeconds = 10;

// The operations `sendPing`, `isAlive` and `refreshMappings`; their contracts
// stand in the record. All take `lock` for themselves.
[[nodiscard]] std::int32_t proxy_sendPing(veskProxy* proxy, vesk_request* req);
[[nodiscard]] std::int32_t proxy_isAlive(veskProxy* proxy, vesk_request* req);
[[nodiscard]] std::int32_t proxy_refreshMappings(veskProxy* proxy, vesk_request* req);

// Whether a server answers a question about itself: 1 or 0. A ping proves only that a
// kernel takes four bytes, which it does for a process that is stopped as well. One that
// gives no answer is out of service until its next pause has ended. Blocks.
[[nodiscard]] std::int32_t answersQuestion(veskProxy* proxy, vesk_request* req);
