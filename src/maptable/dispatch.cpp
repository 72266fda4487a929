#include "maptable/dispatch.h"

#include <algorithm>
#include <cerrno>

#include "context/text.h"
#include "context/vesk_error.h"
#include "context/vesk_mutex.h"
#include "maptable/cluster_update.h"
#include "maptable/membership.h"
#include "maptable/selection.h"
#include "maptable/vesk_session.h"
#include "proxy/proxy_error.h"

constexpr std::int32_t kFindMapping = -1;
constexpr std::int32_t kNoSequence = -1;

// One request on its way.
struct Dispatch {
  mappingsTable* table;
  vesk_request* req;
  const char* extra;
  std::int32_t index;
  bool filtered;          // the index was found here
  const proxyList* list;  // of the mapping, once it is known
  veskProxy* failedTargets[kFailedTargets];
  bool repeated;       // a server that is gone was chosen a second time
  veskProxy* untried;  // the server of the next attempt, if it is known already
};

static bool findMapping(Dispatch* dispatch) {
  dispatch->filtered = true;
  dispatch->index =
      dispatch->table->filterRequest(dispatch->table, dispatch->req, /*honour=*/0);
  if (dispatch->index >= 0) return true;
  dispatch->req->trace(dispatch->req, "request not for Vesk.");
  return false;
}

// Whether the index is that of a mapping. It came from outside, so it may be any
// number. Once its list is known the request stays with that mapping: others that
// are merged in front of it between two attempts only move it up.
// REQUIRES: tableMutex.
static bool locateMapping(Dispatch* dispatch) {
  const mappingsTable* table = dispatch->table;
  const std::int32_t count = table->mappings->count;
  if (!dispatch->list && dispatch->index < count)
    dispatch->list = table->mappingProxies[dispatch->index];
  while (dispatch->index < count &&
         table->mappingProxies[dispatch->index] != dispatch->list)
    ++dispatch->index;
  return dispatch->index < count;
}

// The server of the next attempt in `proxy`, or null there when none can serve;
// false when there is no such mapping. REQUIRES: tableMutex.
static bool chooseProxyLocked(Dispatch* dispatch, veskProxy** proxy) {
  mappingsTable* table = dispatch->table;
  vesk_request* req = dispatch->req;
  if (!locateMapping(dispatch)) return false;
  req->deferError = isClustered(table) ? 1 : 0;
  if (dispatch->untried) {
    *proxy = dispatch->untried;
    dispatch->untried = nullptr;
    return true;
  }
  const mappingBalance* balance = table->mappingBalances[dispatch->index];
  if (isClustered(table) && balance->anyActive == 0) {
    if (lastDitchFindReachableServer(table, req, dispatch->index,
                                     dispatch->failedTargets) != 0)
      return true;
    if (!locateMapping(dispatch)) return false;
  }
  *proxy = selectProxy(table, req, dispatch->index);
  return true;
}

static bool chooseProxy(Dispatch* dispatch, veskProxy** proxy) {
  mappingsTable* table = dispatch->table;
  const SyncGuard guard(dispatch->req, &table->tableMutex, &table->tableMutexHeld);
  return chooseProxyLocked(dispatch, proxy);
}

static void reportNoServer(const Dispatch* dispatch) {
  vesk_request* req = dispatch->req;
  req->deferError = 0;
  req->lastError = ETIMEDOUT;
  proxyerror(req, nullptr);
  req->log(req,
           "NO servers reachable in cluster, start your bootstrap server %s or one of "
           "the servers in your store file %s",
           orElse(dispatch->table->bootstrapServer, "<null>"),
           orElse(dispatch->table->serverStore, "<null>"));
}

static std::int32_t forward(const Dispatch* dispatch, veskProxy* proxy) {
  std::int32_t sequence = kNoSequence;
  const std::int32_t result =
      proxy->handleRequest(dispatch->req, proxy, dispatch->extra, &sequence);
  if (result == kRequestServed && sequence >= 0)
    updateClusteredServers(dispatch->table, dispatch->req, proxy, sequence);
  return result;
}

static bool hasFailed(const Dispatch* dispatch, const veskProxy* proxy) {
  veskProxy* const* end = dispatch->failedTargets + kFailedTargets;
  return std::find(dispatch->failedTargets, end, proxy) != end;
}

// Finds an active server that this request hasn't tried, for the next attempt.
static bool findUntried(Dispatch* dispatch) {
  mappingsTable* table = dispatch->table;
  const SyncGuard guard(dispatch->req, &table->tableMutex, &table->tableMutexHeld);
  const proxyList* list = dispatch->list;
  for (std::int32_t i = 0; i < list->count && !dispatch->untried; ++i) {
    veskProxy* proxy = list->proxies[i];
    const bool active = list->active[i] != 0 && isProxyActive(proxy);
    if (active && !hasFailed(dispatch, proxy)) dispatch->untried = proxy;
  }
  return dispatch->untried != nullptr;
}

// Whether the server of a failed attempt is gone. Another thread's reply may have put
// its proxy back into the table since, without a ping, so `active` alone doesn't tell:
// a refused connection speaks for itself, and where a connection broke or timed out, a
// ping does, as a process that ends resets connections before it refuses them.
static bool isGone(const Dispatch* dispatch, veskProxy* proxy) {
  vesk_request* req = dispatch->req;
  if (!isProxyActive(proxy) || isVeskServerUnreachable(req, 0)) return true;
  const std::int32_t error = req->lastError;
  if (error != ECONNRESET && error != EPIPE && error != ETIMEDOUT) return false;
  if (proxy->sendPing(proxy, req) != 0) return false;
  if (!isProxyActive(proxy)) removeProxy(dispatch->table, proxy, req, 1);
  return true;
}

// Takes a server out of the table that the pool has found unreachable. The removal
// closes its idle sockets, which must not hide why the attempt failed.
static void removeUnreachable(const Dispatch* dispatch, veskProxy* proxy) {
  if (isProxyActive(proxy)) return;
  const std::int32_t error = dispatch->req->lastError;
  removeProxy(dispatch->table, proxy, dispatch->req, 1);
  dispatch->req->lastError = error;
}

// Draws the conclusions of a failed attempt: whether another one is made.
static bool mayTryAgain(Dispatch* dispatch, veskProxy* proxy) {
  vesk_request* req = dispatch->req;
  req->traceE(req, kTraceDetail, "%s handleRequest failed, error %d %s", proxy->name,
              req->lastError, describeError(req->lastError));
  removeUnreachable(dispatch, proxy);
  if (req->lastError == EVESK_CLIENT_DOWN || !isClustered(dispatch->table)) return false;
  const bool first =
      tryAnotherProxy(req, dispatch->table, dispatch->failedTargets, proxy, 1) != 0;
  if (first && !dispatch->repeated) return true;
  // A server that has gone comes back into the table without a ping as long as the
  // cluster's list names it, and may so be chosen twice. That spends the one
  // attempt beyond the distinct servers: from then on, only untried ones follow.
  if (!first && (dispatch->repeated || !isGone(dispatch, proxy))) return false;
  dispatch->repeated = true;
  return findUntried(dispatch);
}

static std::int32_t serve(Dispatch* dispatch) {
  std::int32_t result = kRequestFailed;
  for (;;) {
    veskProxy* proxy = nullptr;
    if (!chooseProxy(dispatch, &proxy)) {
      if (dispatch->filtered || !findMapping(dispatch)) return kRequestNotOurs;
      continue;
    }
    if (!proxy) {
      reportNoServer(dispatch);
      return result;
    }
    result = forward(dispatch, proxy);
    if (result == kRequestServed || !mayTryAgain(dispatch, proxy)) {
      proxy->requestEnded(proxy, dispatch->req);
      return result;
    }
  }
}

std::int32_t handleRequestWithIndex(mappingsTable* table, vesk_request* req,
                                    const char* extra, std::int32_t index) {
  Dispatch dispatch{.table = table,
                    .req = req,
                    .extra = extra,
                    .index = index,
                    .filtered = false,
                    .list = nullptr,
                    .failedTargets = {},
                    .repeated = false,
                    .untried = nullptr};
  if (index < 0 && !findMapping(&dispatch)) return kRequestNotOurs;
  req->sessionId = getSessionId(req);
  const std::int32_t result = serve(&dispatch);
  if (req->sessionId) req->free(req, req->sessionId);
  req->sessionId = nullptr;
  req->deferError = 0;
  return result;
}

std::int32_t handleRequest(mappingsTable* table, vesk_request* req, const char* extra) {
  return handleRequestWithIndex(table, req, extra, kFindMapping);
}
