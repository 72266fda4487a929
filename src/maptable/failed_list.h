// The servers that have failed for one request, in that order.
//
// Ownership: a record of the request's own, on its stack; it refers to proxies of the
// table, which outlive it. Threads: the request's; no lock. Failure: none.
#pragma once

#include "maptable/vesk_maptable_impl.h"

struct failedList {
  std::int32_t count;
  // A mapping has no more servers than that, and only those are asked.
  veskProxy* proxies[kMaxProxies];
};
static_assert(std::is_trivial_v<failedList> && std::is_standard_layout_v<failedList>);

[[nodiscard]] bool hasFailed(const failedList& failed, const veskProxy* proxy);

// 1 when `proxy` has not failed for this request yet; `record` 1 notes it as
// failed. 0 when it has, and always outside a cluster.
[[nodiscard]] std::int32_t tryAnotherProxy(vesk_request* req, mappingsTable* table,
                                           failedList* failed, veskProxy* proxy,
                                           std::uint32_t record);
