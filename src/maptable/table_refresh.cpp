#include "maptable/table_refresh.h"

#include <cerrno>

#include "context/guards.h"
#include "context/held_requests.h"
#include "context/memory.h"
#include "maptable/awaited_servers.h"
#include "maptable/membership.h"
#include "maptable/question_limit.h"
#include "maptable/server_join.h"
#include "maptable/table_events.h"
#include "maptable/table_guard.h"
#include "proxy/proxy_pool.h"
#include "proxy/proxy_refresh.h"

// The walk changes the flags that it tests, so it goes over a copy of the list.
static proxyList copyOfServers(mappingsTable* table, vesk_request* req,
                               std::uint32_t lock) {
  const TableGuard guard(table, req, lock);
  return table->masterList;
}

// A server that had a time for its answer and missed it can't be told from one that is
// gone: requests should not wait for it either.
static void judgeFailedRefresh(vesk_request* req, veskProxy* proxy) {
  if (req->conversationLimit != 0 && req->lastError == ETIMEDOUT)
    takeOutOfService(req, proxy);
}

static void refreshServer(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                          bool activeInTable, std::uint32_t lock) {
  closeAgedConnections(req, proxy);
  if (!activeInTable) {
    // Whoever is out is asked only when its timer says so: that is one comparison,
    // mostly.
    if (proxy->isAlive(proxy, req) == 0) return;
    if (addProxy(table, proxy, req, lock) < 0) return;
  }
  const std::int32_t refreshed = proxy->refreshMappings(proxy, req);
  if (refreshed == 0) updateProxy(table, proxy, req, lock);
  if (refreshed < 0) judgeFailedRefresh(req, proxy);
  // A failed refresh alone takes nobody out: old mappings still serve.
  if (refreshed < 0 && !isProxyActive(proxy)) removeProxy(table, proxy, req, lock);
}

// The list is empty without the guard `comeback`.
static void admitAwaited(mappingsTable* table, vesk_request* req, std::uint32_t lock) {
  // Each pass puts one name off, or takes it off the list; so this ends. By the clock of
  // its begin: attempts may last longer than the pause, and the first name would be due
  // again before the last one has had its turn.
  const std::int64_t now = req->now(req);
  const SharedLimit shared(req, table->awaitedCount);
  for (char name[kProxyNameSize]; !isShuttingDown();) {
    {
      const TableGuard guard(table, req, lock);
      if (!nextAwaited(table, now, name)) return;
    }
    req->lastError = 0;
    const ServerJoin outcome = admitServer(table, req, name, lock);
    if (outcome == ServerJoin::later) continue;
    const TableGuard guard(table, req, lock);
    if (outcome == ServerJoin::known) forgetAwaited(table, name);
    if (outcome != ServerJoin::known && outcome != ServerJoin::joined)
      (void)awaitServer(table, req, name);  // it stands there
  }
}

static std::int32_t countOut(const proxyList& servers) {
  std::int32_t out = 0;
  for (std::int32_t i = 0; i < servers.count; ++i)
    if (servers.active[i] == 0 && !isProxyUnlisted(servers.proxies[i])) ++out;
  return out;
}

// With the guard `comeback` a server that the pool has marked counts as out, also while
// the table doesn't know yet: no request may have met it, and its mark alone would have
// the next refresh switch off its mappings without a way back.
static bool isInService(const vesk_request* req, const proxyList& servers,
                        std::int32_t i) {
  if (servers.active[i] == 0) return false;
  return !guarded(req, Guard::comeback) || isProxyActive(servers.proxies[i]);
}

void refreshServers(mappingsTable* table, vesk_request* req, std::uint32_t lock) {
  const HoldsTable holds(req, lock == 0);
  const proxyList snapshot = copyOfServers(table, req, lock);
  const std::int32_t limit = req->conversationLimit;
  const std::int32_t share = shareOfLimit(limit, countOut(snapshot));
  for (std::int32_t i = 0; i < snapshot.count && !isShuttingDown(); ++i) {
    const bool active = isInService(req, snapshot, i);
    // On the connector's own thread one server's failure is no business of the next.
    if (lock) req->lastError = 0;
    req->conversationLimit = active ? limit : share;
    refreshServer(table, req, snapshot.proxies[i], active, lock);
  }
  req->conversationLimit = limit;
  admitAwaited(table, req, lock);
  reportClusterNews(table, req, 0, lock);
}

void reviveServers(mappingsTable* table, vesk_request* req, std::uint32_t lock) {
  const proxyList snapshot = copyOfServers(table, req, lock);
  const SharedLimit shared(req, countOut(snapshot));
  for (std::int32_t i = 0; i < snapshot.count && !isShuttingDown(); ++i) {
    veskProxy* proxy = snapshot.proxies[i];
    // A mapping that nobody serves any more may be asked for again and again; that must
    // not have all the others asked that are out.
    const bool wanted = takeProxyWanted(proxy);
    if (!wanted || snapshot.active[i] != 0 || isProxyUnlisted(proxy)) continue;
    req->lastError = 0;
    if (answersQuestion(proxy, req) != 0) (void)addProxy(table, proxy, req, lock);
  }
}
