#include "maptable/failed_list.h"

#include <algorithm>

// A walk: the list holds as many as a request has had attempts.
bool hasFailed(const failedList& failed, const veskProxy* proxy) {
  veskProxy* const* end = failed.proxies + failed.count;
  return std::find(failed.proxies, end, proxy) != end;
}

std::int32_t tryAnotherProxy(vesk_request* req, mappingsTable* table, failedList* failed,
                             veskProxy* proxy, std::uint32_t record) {
  if (!isClustered(table)) return 0;
  // The table knows no more servers than the list takes, so a full one holds them all.
  if (hasFailed(*failed, proxy) || failed->count == kMaxProxies) {
    req->traceE(req, kTraceDetail, "%s already in failed target list", proxy->name);
    return 0;
  }
  // Asking alone notes nothing: the last resort only pings whom it asks about.
  if (record) failed->proxies[failed->count++] = proxy;
  req->traceE(req, kTraceDetail, "%s not in failed target list", proxy->name);
  return 1;
}
