#include "maptable/dispatch.h"

#include <atomic>
#include <cerrno>

#include "context/clock.h"
#include "context/guards.h"
#include "context/held_requests.h"
#include "context/sockets.h"
#include "context/text.h"
#include "context/vesk_error.h"
#include "context/vesk_mutex.h"
#include "maptable/cluster_update.h"
#include "maptable/failed_list.h"
#include "maptable/last_ditch.h"
#include "maptable/membership.h"
#include "maptable/request_lock.h"
#include "maptable/selection.h"
#include "maptable/session_outcome.h"
#include "maptable/table_events.h"
#include "maptable/vesk_session.h"
#include "proxy/counter_board.h"
#include "proxy/proxy_error.h"
#include "proxy/replay.h"
#include "proxy/request_outcome.h"

constexpr std::int32_t kFindMapping = -1;
constexpr std::int32_t kNoSequence = -1;

// One request on its way.
struct Dispatch {
  mappingsTable* table;
  vesk_request* req;
  const char* extra;
  std::int32_t index;
  const proxyList* list;  // of the mapping, once it is known
  veskProxy* proxy;       // the server of the last attempt, once one was chosen
  bool untriedOnly;       // whoever was asked would only be chosen again, in vain
  failedList failed;
  failedAttempts attempts;
};

// What the search for the server of an attempt came to.
enum class Search {
  found,        // in `proxy`
  nobody,       // no server of the mapping can serve
  noneUntried,  // none that this request hasn't asked; the last failure stands
  noMapping,    // the index is that of no mapping
};

// What a failed attempt leads to.
enum class Verdict {
  tryAgain,
  giveUp,  // the request ends as the attempt has left it
  answer,  // it ends, and the browser is told
};

static bool findMapping(Dispatch* dispatch) {
  dispatch->index =
      dispatch->table->filterRequest(dispatch->table, dispatch->req, /*honour=*/0);
  if (dispatch->index >= 0) return true;
  dispatch->req->trace(dispatch->req, "request not for Vesk.");
  return false;
}

// Whether the index is that of a mapping. It may have come from outside, as any number;
// one that was found here always is, since mappings never go. Once its list is known the
// request stays with that mapping: others that are merged in front of it between two
// attempts only move it up. REQUIRES: tableMutex.
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

// The last resort of the mapping. REQUIRES: tableMutex.
static Search bringServerBack(Dispatch* dispatch) {
  mappingsTable* table = dispatch->table;
  const HoldsTable holds(dispatch->req, true);
  if (lastDitchFindReachableServer(table, dispatch->req, dispatch->index,
                                   &dispatch->failed) != 0)
    return Search::nobody;
  // What has joined meanwhile may have moved the mapping.
  return locateMapping(dispatch) ? Search::found : Search::noMapping;
}

// REQUIRES: tableMutex.
static Search selectServer(Dispatch* dispatch) {
  veskProxy* proxy = selectProxy(dispatch->table, dispatch->req, dispatch->index);
  if (!proxy) return Search::nobody;
  dispatch->proxy = proxy;
  return Search::found;
}

// By the algorithm. The last resort comes first where no server is active, and behind it
// where those that are have been drained: their sessions need no other.
// REQUIRES: tableMutex.
static Search chooseByBalance(Dispatch* dispatch) {
  mappingsTable* table = dispatch->table;
  const bool clustered = isClustered(table);
  const bool out = clustered && table->mappingBalances[dispatch->index]->anyActive == 0;
  Search search = out ? bringServerBack(dispatch) : Search::found;
  if (search != Search::found) return search;
  search = selectServer(dispatch);
  if (search == Search::found) return search;
  if (out || !clustered || !anyDrained()) return search;
  search = bringServerBack(dispatch);
  if (search != Search::found) return search;
  return selectServer(dispatch);
}

// REQUIRES: tableMutex.
static Search chooseAmongUntried(Dispatch* dispatch) {
  veskProxy* proxy = selectUntried(dispatch->list, dispatch->failed);
  if (!proxy) return Search::noneUntried;
  dispatch->proxy = proxy;
  return Search::found;
}

// Once for a request, however many attempts it takes.
static void countHit(const Dispatch* dispatch) {
  std::int64_t* hits = dispatch->table->mappingBalances[dispatch->index]->hits;
  if (hits && dispatch->req->outcome.attempts == 0)
    std::atomic_ref(*hits).fetch_add(1, std::memory_order_relaxed);
}

// Looks for the server of the next attempt. Whether that may keep its failure from the
// browser is asked anew each time: a table can become a cluster between two attempts.
static Search chooseProxy(Dispatch* dispatch) {
  mappingsTable* table = dispatch->table;
  const RequestLock lock(table, dispatch->req);
  if (!locateMapping(dispatch)) return Search::noMapping;
  countHit(dispatch);
  dispatch->req->deferError = isClustered(table) ? 1 : 0;
  return dispatch->untriedOnly ? chooseAmongUntried(dispatch) : chooseByBalance(dispatch);
}

static void reportNoServer(Dispatch* dispatch) {
  vesk_request* req = dispatch->req;
  dispatch->attempts.nobodyLeft = true;
  req->deferError = 0;
  req->outcome.kind = kOutcomeFailed;
  req->lastError = ETIMEDOUT;
  proxyerror(req, nullptr);
  if (anyDrained())
    req->log(req, "no server takes new requests: those in service may all be drained");
  req->log(req,
           "NO servers reachable in cluster, start your bootstrap server %s or one of "
           "the servers in your store file %s",
           orElse(dispatch->table->bootstrapServer, "<null>"),
           orElse(dispatch->table->serverStore, "<null>"));
}

// The time is that of the request's begin and of what its attempts took together: the
// clock needn't be asked again.
static void countOutcome(const vesk_request* req, const veskProxy* proxy,
                         std::int64_t micros) {
  constexpr std::int64_t kMillisPerSecond = 1000;
  if (!proxy->place) return;
  const veskOutcome& outcome = req->outcome;
  countAttempt(&proxy->place->counters,
               {.served = outcome.kind == kOutcomeServed,
                .cause = outcome.state[1],
                .first = outcome.attempts == 1,
                .micros = micros,
                .second = (req->startTime + outcome.micros / kMillisPerSecond) /
                          kMillisPerSecond});
}

// One attempt, with what is to be told of it afterwards.
static std::int32_t attempt(const Dispatch* dispatch, std::int32_t* sequence) {
  vesk_request* req = dispatch->req;
  veskProxy* proxy = dispatch->proxy;
  beginOutcome(req, proxy);
  beginSession(req, proxy);
  const std::int64_t begin = monotonicMicros();
  const std::int32_t result = proxy->handleRequest(req, proxy, dispatch->extra, sequence);
  const std::int64_t micros = monotonicMicros() - begin;
  endOutcome(req, result == kRequestServed, micros);
  countOutcome(req, proxy, micros);
  return result;
}

static std::int32_t forward(const Dispatch* dispatch) {
  veskProxy* proxy = dispatch->proxy;
  std::int32_t sequence = kNoSequence;
  const std::int32_t result = attempt(dispatch, &sequence);
  if (result == kRequestServed && sequence >= 0)
    updateClusteredServers(dispatch->table, dispatch->req, proxy, sequence);
  return result;
}

// Takes the server of a failed attempt out of the table if the pool has found it
// unreachable. The removal closes its idle sockets, which must not hide why the attempt
// failed.
static void removeIfUnreachable(const Dispatch* dispatch) {
  if (isProxyActive(dispatch->proxy)) return;
  const std::int32_t error = dispatch->req->lastError;
  removeProxy(dispatch->table, dispatch->proxy, dispatch->req, 1);
  dispatch->req->lastError = error;
}

// Whether a connection ended as it does when the server's process ends: that resets
// connections before it refuses them.
static bool mayHaveEnded(const vesk_request* req) {
  return req->lastError == ECONNRESET || req->lastError == EPIPE ||
         req->lastError == ETIMEDOUT;
}

// Finds out whether the server of a failed attempt is gone, by a ping where nothing else
// tells. Another thread's reply may have put its proxy back into the table since, without
// a ping, so `active` alone isn't enough; a refused connection speaks for itself. One
// that the ping has found unreachable leaves the table.
static bool confirmGone(const Dispatch* dispatch) {
  vesk_request* req = dispatch->req;
  veskProxy* proxy = dispatch->proxy;
  if (!isProxyActive(proxy) || isVeskServerUnreachable(req, 0)) return true;
  if (!mayHaveEnded(req)) return false;
  // What the attempt came to is what the browser may yet be told, not the ping's result.
  const std::int32_t error = req->lastError;
  const bool gone = proxy->sendPing(proxy, req) == 0;
  if (gone && !isProxyActive(proxy)) removeProxy(dispatch->table, proxy, req, 1);
  req->lastError = error;
  return gone;
}

// How a request ends that no further server may see. With the guard `attempt` the browser
// always gets an answer of the connector's; without it, the host's own error page.
static Verdict endingOf(const vesk_request* req) {
  return guarded(req, Guard::attempt) ? Verdict::answer : Verdict::giveUp;
}

// Whether anything forbids another attempt, whoever could make it: a response that the
// browser has in part, a request that may have been carried out, a time that is over.
static bool isLastAttempt(const Dispatch* dispatch) {
  vesk_request* req = dispatch->req;
  if (req->responseStarted && guarded(req, Guard::partial)) return true;
  if (isPastDeadline(req)) return true;
  if (mayReplay(req)) return false;
  reportNoReplay(req, dispatch->proxy);
  return true;
}

// Draws the conclusions of a failed attempt.
static Verdict concludeFailure(Dispatch* dispatch) {
  vesk_request* req = dispatch->req;
  mappingsTable* table = dispatch->table;
  noteFailedAttempt(&dispatch->attempts, dispatch->proxy, req->lastError);
  req->traceE(req, kTraceDetail, "%s handleRequest failed, error %d %s",
              dispatch->proxy->name, req->lastError, describeError(req->lastError));
  removeIfUnreachable(dispatch);
  if (req->lastError == EVESK_CLIENT_DOWN || !isClustered(table)) return Verdict::giveUp;
  if (isLastAttempt(dispatch)) return Verdict::answer;
  // A server that has as much to do as it may would be chosen again, by its session or
  // its weight, and be as busy.
  if (req->lastError == EVESK_BUSY && veskMaxPerServer != 0) dispatch->untriedOnly = true;
  if (tryAnotherProxy(req, table, &dispatch->failed, dispatch->proxy, 1) != 0)
    return Verdict::tryAgain;
  // A server that has gone comes back into the table without a ping as long as the
  // cluster's list names it, and may so be chosen twice. That spends the one
  // attempt beyond the distinct servers: from then on, only untried ones follow.
  if (!confirmGone(dispatch)) return endingOf(req);
  dispatch->untriedOnly = true;
  return Verdict::tryAgain;
}

// The attempts have only logged, as long as another could follow: now the browser is told
// what the last one came to.
static void answerFailure(const Dispatch* dispatch) {
  vesk_request* req = dispatch->req;
  if (!req->deferError || req->responseStarted) return;
  req->deferError = 0;
  proxyerror(req, dispatch->proxy);
}

static std::int32_t endRequest(const Dispatch* dispatch, std::int32_t result,
                               Verdict verdict) {
  if (result != kRequestServed && verdict == Verdict::answer) answerFailure(dispatch);
  dispatch->proxy->requestEnded(dispatch->proxy, dispatch->req);
  return result;
}

static std::int32_t declineRequest(vesk_request* req) {
  req->outcome.kind = kOutcomeDeclined;
  return kRequestNotOurs;
}

static std::int32_t dispatchRequest(Dispatch* dispatch) {
  std::int32_t result = kRequestFailed;
  for (;;) {
    switch (chooseProxy(dispatch)) {
      case Search::noMapping:
        if (!findMapping(dispatch)) return declineRequest(dispatch->req);
        continue;
      case Search::nobody:
        reportNoServer(dispatch);
        return result;
      case Search::noneUntried:
        return endRequest(dispatch, result, endingOf(dispatch->req));
      case Search::found:
        break;
    }
    result = forward(dispatch);
    if (result == kRequestServed) return endRequest(dispatch, result, Verdict::giveUp);
    const Verdict verdict = concludeFailure(dispatch);
    if (verdict != Verdict::tryAgain) return endRequest(dispatch, result, verdict);
  }
}

static void countRequest(const vesk_request* req) {
  counterBoard* board = getBoard();
  if (board)
    std::atomic_ref(board->requests[req->outcome.kind])
        .fetch_add(1, std::memory_order_relaxed);
}

std::int32_t handleRequestWithIndex(mappingsTable* table, vesk_request* req,
                                    const char* extra, std::int32_t index) {
  // Field by field: the list of failures is long, and counts from its start.
  Dispatch dispatch;
  dispatch.table = table;
  dispatch.req = req;
  dispatch.extra = extra;
  dispatch.index = index;
  dispatch.list = nullptr;
  dispatch.proxy = nullptr;
  dispatch.untriedOnly = false;
  dispatch.failed.count = 0;
  dispatch.attempts.count = 0;
  dispatch.attempts.nobodyLeft = false;
  if (index < 0 && !findMapping(&dispatch)) {
    const std::int32_t declined = declineRequest(req);
    countRequest(req);
    return declined;
  }
  if (guarded(req, Guard::attempt)) req->markResponse(req);
  req->sessionId = getSessionId(req);
  const std::int32_t result = dispatchRequest(&dispatch);
  concludeAttempts(req, dispatch.attempts, result);
  countRequest(req);
  if (req->sessionId) req->free(req, req->sessionId);
  req->sessionId = nullptr;
  req->deferError = 0;
  return result;
}

std::int32_t handleRequest(mappingsTable* table, vesk_request* req, const char* extra) {
  return handleRequestWithIndex(table, req, extra, kFindMapping);
}
