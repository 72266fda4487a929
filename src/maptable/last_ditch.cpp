#include "maptable/last_ditch.h"

#include "context/guards.h"
#include "maptable/maintenance_queue.h"
#include "maptable/membership.h"
#include "maptable/table_startup.h"
#include "proxy/counter_board.h"

// With the guard `comeback` a server is asked once a second at most, however many
// requests find nobody, and not at all while the list doesn't name it.
static bool mayBeAsked(vesk_request* req, const veskProxy* proxy, std::int64_t now) {
  if (!guarded(req, Guard::comeback)) return true;
  const std::int64_t failedAt = getProxyRetryTime(proxy) - retryPause(req, proxy);
  return failedAt < now && !isProxyUnlisted(proxy);
}

// REQUIRES: tableMutex.
static bool reviveProxy(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                        std::int64_t now) {
  setProxyRetryTime(proxy, now);
  req->log(req,
           "%s reset proxy retry time to now since all servers for this mapping are "
           "marked unreachable",
           proxy->name);
  // What an attempt on another server came to must not put off this one's connect.
  if (guarded(req, Guard::comeback)) req->lastError = 0;
  if (proxy->isAlive(proxy, req) == 0) return false;
  return addProxy(table, proxy, req, 0) == 0;
}

std::int32_t lastDitchFindReachableServer(mappingsTable* table, vesk_request* req,
                                          std::int32_t index, failedList* failed) {
  const std::int64_t now = req->now(req);
  // The columns may move below, the records don't.
  const proxyList* list = table->mappingProxies[index];
  const mappingBalance* balance = table->mappingBalances[index];
  const char* key = table->mappings->entries[index].key;

  if (table->queue) {
    for (std::int32_t i = 0; i < list->count; ++i) setProxyWanted(list->proxies[i]);
    askForRevival(table);
    return -1;
  }
  if (table->bootstrapped == 0 && retrieveServersFromBootstrapServer(table, req, 0) > 0 &&
      balance->anyActive != 0) {
    req->traceE(req, kTraceState, "found reachable server using bootstrap server");
    return 0;
  }
  // One that answers is enough: the others come back by their own timers, and the
  // request waits. But one that is drained may be of no use to this request.
  bool revived = false;
  for (std::int32_t i = 0; i < list->count; ++i) {
    veskProxy* proxy = list->proxies[i];
    const bool drained = anyDrained() && isDrained(proxy->place);
    if (drained && list->active[i] != 0) continue;
    if (tryAnotherProxy(req, table, failed, proxy, 0) == 0) continue;
    if (!mayBeAsked(req, proxy, now)) continue;
    if (!reviveProxy(table, req, proxy, now)) continue;
    revived = true;
    if (!drained) return 0;
  }
  if (revived) return 0;
  req->traceE(req, kTraceState, "couldn't find reachable server for %s map", key);
  return -1;
}
