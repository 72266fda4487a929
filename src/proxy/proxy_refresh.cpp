#include "proxy/proxy_refresh.h"

#include "context/guards.h"
#include "context/held_requests.h"
#include "context/vesk_mutex.h"
#include "properties/vesk_property.h"
#include "proxy/mapping_order.h"
#include "proxy/proxy_pool.h"
#include "proxy/proxy_props.h"
#include "proxy/server_events.h"

static bool tryPing(vesk_request* req, veskProxy* proxy, std::int32_t sock,
                    void* /*context*/) {
  return sendPingMsg(req, proxy, sock) >= 0;
}

std::int32_t proxy_sendPing(veskProxy* proxy, vesk_request* req) {
  VeskConnection* connection =
      takeConnection(proxy, req, {tryPing, nullptr, nullptr, nullptr});
  if (!connection) return 0;
  returnVeskConnectionToPool(req, proxy, connection);
  return 1;
}

std::int32_t answersQuestion(veskProxy* proxy, vesk_request* req) {
  propertyTable* answer = proxy->fetchProps(req, proxy, "server-props", nullptr);
  freeProperties(req, answer);  // how it is to be treated was settled when it joined
  if (answer) return 1;
  takeOutOfService(req, proxy);
  return 0;
}

std::int32_t proxy_isAlive(veskProxy* proxy, vesk_request* req) {
  const std::int64_t now = req->now(req);
  // Read without the lock: an old value costs one ping or puts one off.
  const std::int64_t retryTime = getProxyRetryTime(proxy);
  if (retryTime == 0 || retryTime > now) return 0;
  {
    SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    if (getProxyRetryTime(proxy) > now) return 0;  // another thread has moved it
  }
  const QuestionScope scope(req, proxy->name);
  if (!guarded(req, Guard::comeback)) return proxy->sendPing(proxy, req);
  return isProxyUnlisted(proxy) ? 0 : answersQuestion(proxy, req);
}

static bool isRefreshDue(const veskProxy* proxy, std::int64_t now) {
  // Read without the lock: claimRefresh looks again, and an old retry time costs
  // one connect or puts one refresh off.
  return getMapCheckTime(proxy) <= now && getProxyRetryTime(proxy) <= now;
}

// Takes a refresh that is due, so that no other thread starts it; false when one
// has.
// The timer is moved before the server is asked: while one thread waits for it, all
// others find nothing due.
static bool claimRefresh(veskProxy* proxy, vesk_request* req, std::int64_t now) {
  SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
  if (getMapCheckTime(proxy) > now) return false;
  setNextMapCheckTime(req, proxy, now);
  return true;
}

static void traceFirstInstall(veskProxy* proxy, vesk_request* req) {
  if (proxy->mapCheckInterval != 0) {
    req->trace(req, "Mappings for %s will be refreshed every %d seconds.", proxy->name,
               proxy->mapCheckInterval);
  } else {
    req->trace(req,
               "Mappings for %s will not be refreshed. VeskProxyService mapcheck "
               "attribute is 0.",
               proxy->name);
  }
}

// Puts a sorted table in place: the old one, or null. Both are looked at under the lock
// as well: a slow refresh may be overtaken by the next.
static propertyTable* swapMappings(veskProxy* proxy, vesk_request* req,
                                   propertyTable* table, EventText* news) {
  SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
  propertyTable* old = proxy->mappings;
  req->trace(req, "old mappings count: %d", old ? old->count : 0);
  describeMappings(proxy, old, table, news);
  proxy->mappings = table;
  if (!old) traceFirstInstall(proxy, req);
  return old;
}

static void installMappings(veskProxy* proxy, vesk_request* req, propertyTable* table) {
  req->trace(req, "installing new mappings for %s count: %d", proxy->name, table->count);
  EventText news;
  propertyTable* old = swapMappings(proxy, req, table, &news);
  if (!old) return;
  reportMappings(req, proxy, news);
  req->trace(req, "Deleting old mappings...");
  freeProperties(req, old);
}

// An interval of 0 has just switched the timer off: it comes back for one try.
static void noteFailedRefresh(veskProxy* proxy, vesk_request* req, std::int64_t now) {
  std::int32_t seconds = proxy->mapCheckInterval;
  if (seconds == 0) {
    seconds = kRefreshRetrySeconds;
    SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    setMapCheckTime(proxy, now + seconds);
  }
  req->traceE(req, kTraceState, "could not get mappings, checking again in %d seconds",
              seconds);
}

// The server's mappings in matching order, or null. An empty set counts as none: it
// would take every mapping from a server that may only be starting up.
static propertyTable* fetchMappings(veskProxy* proxy, vesk_request* req) {
  propertyTable* table = fetchProps(req, proxy, "servlet-mappings", nullptr);
  if (!table) return nullptr;
  if (table->count > 0 && sortMappings(req, table) == 0) return table;
  freeProperties(req, table);
  return nullptr;
}

std::int32_t proxy_refreshMappings(veskProxy* proxy, vesk_request* req) {
  // One reading of the clock for all that is decided here, so that the parts agree.
  const std::int64_t now = req->now(req);
  if (!isRefreshDue(proxy, now)) return 1;
  if (!claimRefresh(proxy, req, now)) return -1;

  req->trace(req, "refreshing mappings for %s", proxy->name);
  propertyTable* table = fetchMappings(proxy, req);
  if (!table) {
    noteFailedRefresh(proxy, req, now);
    return -1;
  }
  installMappings(proxy, req, table);
  return 0;
}
