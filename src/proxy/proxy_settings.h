// What a server says of itself in "server-props", taken over into its proxy: the
// intervals of its timers, and its part in the balancing of load.
//
// Ownership: the balance is made here and belongs to the proxy.
// Threads: the one that made the proxy; it is not published yet.
// Failure: -1 without memory. Units: seconds.
#pragma once

#include "proxy/vesk_proxy.h"

// What counts where the server doesn't say.
constexpr std::int32_t kDefaultMapCheck = 10;
constexpr std::int32_t kDefaultProxyRetry = 600;

// What "algorithm" says for a BALANCE_ code; of no known one what counts for it.
[[nodiscard]] const char* algorithmName(std::uint32_t code);

// Takes all settings over: 0 or -1. `retryInterval` stands in for the one that the server
// doesn't name; 0 means the default.
[[nodiscard]] std::int32_t applySettings(veskProxy* proxy, vesk_request* req,
                                         const propertyTable* props,
                                         std::int32_t retryInterval);
