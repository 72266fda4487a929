#include "proxy/proxy_pool.h"

#include <arpa/inet.h>

#include <cerrno>

#include "context/guards.h"
#include "context/memory.h"
#include "context/sockets.h"
#include "context/text.h"
#include "context/vesk_error.h"
#include "context/vesk_mutex.h"
#include "proxy/server_events.h"
#include "proxy/wire.h"

proxyPool* initPool(vesk_request* req, veskProxy* proxy, const char* host,
                    std::int32_t port) {
  auto* pool = static_cast<proxyPool*>(newPermZeroed(req, sizeof(proxyPool)));
  if (!pool) return nullptr;
  pool->address.sin_family = AF_INET;
  pool->address.sin_addr.s_addr = inet_addr(host);
  pool->address.sin_port = htons(static_cast<std::uint16_t>(port));
  req->trace(req, "%s initPool finished", proxy->name);
  return pool;
}

// The head of the idle list, marked as pooled by a link to itself, or null.
// REQUIRES: `lock`.
static VeskConnection* takeIdleLocked(veskProxy* proxy) {
  VeskConnection* connection = proxy->pool->freeConnections;
  if (!connection) return nullptr;
  proxy->pool->freeConnections = connection->next;
  connection->next = connection;
  return connection;
}

// Whether this request has to do without a connect: it has failed before, and
// the server is in its retry pause. A first try always connects.
// REQUIRES: `lock`.
static bool isConnectDeferredLocked(vesk_request* req, veskProxy* proxy) {
  if (req->lastError == 0) return false;
  const std::int64_t secondsLeft = getProxyRetryTime(proxy) - req->now(req);
  if (secondsLeft <= 0) return false;
  req->traceE(req, kTraceState, "%s connect deferred %d secs, error %d", proxy->name,
              clampToInt32(secondsLeft), req->lastError);
  return true;
}

// Takes the mark off a server whose connection told nothing against it. With the guard
// `comeback` that doesn't count for one that is out of service: a conversation that began
// before would leave it without a timer, and so out for ever.
// REQUIRES: `lock`.
static void clearRetryTimeLocked(vesk_request* req, veskProxy* proxy) {
  const bool out = proxy->balance && !isProxyActive(proxy);
  if (!out || !guarded(req, Guard::comeback)) setProxyRetryTime(proxy, 0);
}

// Marks the server as down. A temp proxy has no mark.
// REQUIRES: `lock`.
static void markUnreachableLocked(vesk_request* req, veskProxy* proxy, std::int64_t now) {
  setNextProxyRetryTime(req, proxy, now);
  setProxyActive(proxy, false);
}

// The record of a socket that has just connected, once a ping has gone out on it;
// null with lastError and the socket closed.
static VeskConnection* newPingedConnection(vesk_request* req, veskProxy* proxy,
                                           std::int32_t sock) {
  if (sendPingMsg(req, proxy, sock) < 0) {
    req->closeSocket(req, sock);
    return nullptr;
  }
  auto* connection =
      static_cast<VeskConnection*>(req->permMalloc(req, sizeof(VeskConnection)));
  if (!connection) {
    req->closeSocket(req, sock);
    req->lastError = ENOBUFS;
    return nullptr;
  }
  *connection = {.next = nullptr, .socket = sock, .idleSince = 0};
  return connection;
}

void takeOutOfService(vesk_request* req, veskProxy* proxy) {
  {
    const SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    markUnreachableLocked(req, proxy, req->now(req));
  }
  serverWentDown(req, proxy, "question");
}

static void noteConnectFailure(vesk_request* req, veskProxy* proxy) {
  // A request that had no time left for the connect has learned nothing of the server.
  const bool hurried = req->conversationLimit == 0 && isPastDeadline(req);
  const bool down = !hurried && isVeskServerUnreachable(req, 1);
  if (down) {
    SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    // The time is taken now: a connect may have lasted as long as the pause.
    markUnreachableLocked(req, proxy, req->now(req));
  }
  if (down) serverWentDown(req, proxy, "connect");
  req->trace(req, "%s connect failed: %d %s, no sock added to pool", proxy->name,
             req->lastError, describeError(req->lastError));
}

static VeskConnection* connectNew(vesk_request* req, veskProxy* proxy) {
  // On a copy: no lock is held while a connect lasts.
  const sockaddr_in address = proxy->pool->address;
  const std::int32_t sock = req->connect(req, &address);
  VeskConnection* connection = sock < 0 ? nullptr : newPingedConnection(req, proxy, sock);
  if (!connection) noteConnectFailure(req, proxy);
  return connection;
}

// Closes a list of connections that no pool holds any more.
static void closeList(vesk_request* req, VeskConnection* connection) {
  while (connection) {
    VeskConnection* next = connection->next;
    req->closeSocket(req, connection->socket);
    req->permFree(req, connection);
    connection = next;
  }
}

// Cuts off what has lain idle for too long: the rest of the list from the first such one
// on, since the pool is a stack and the oldest lie at its end. Once a second is enough.
// REQUIRES: `lock`.
static VeskConnection* cutAgedLocked(vesk_request* req, veskProxy* proxy) {
  proxyPool* pool = proxy->pool;
  const std::int64_t now = req->now(req);
  if (now == pool->lastAgeCheck) return nullptr;
  pool->lastAgeCheck = now;
  VeskConnection** link = &pool->freeConnections;
  while (*link && (*link)->idleSince + veskIdleTimeout > now) link = &(*link)->next;
  VeskConnection* aged = *link;
  *link = nullptr;
  return aged;
}

static bool agesConnections(const vesk_request* req) {
  return guarded(req, Guard::idle) && veskIdleTimeout != 0;
}

static void closeAged(vesk_request* req, veskProxy* proxy, VeskConnection* aged) {
  if (!aged) return;
  req->traceE(req, kTraceDetail, "%s closing connections idle for %d secs", proxy->name,
              veskIdleTimeout);
  closeList(req, aged);
}

void closeAgedConnections(vesk_request* req, veskProxy* proxy) {
  if (!agesConnections(req) || !proxy->pool) return;
  VeskConnection* aged = nullptr;
  {
    const SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    aged = cutAgedLocked(req, proxy);
  }
  closeAged(req, proxy, aged);
}

VeskConnection* getVeskConnectionFromPool(veskProxy* proxy, vesk_request* req) {
  if (isShuttingDown()) return nullptr;
  // A request that has run out of time would fail on each idle connection in turn, with
  // its frame sent, and then take its haste for a server that can't be reached.
  if (isPastDeadline(req)) {
    req->lastError = ETIMEDOUT;
    return nullptr;
  }
  VeskConnection* aged = nullptr;
  VeskConnection* idle = nullptr;
  bool deferred = false;
  {
    SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    if (agesConnections(req)) aged = cutAgedLocked(req, proxy);
    idle = takeIdleLocked(proxy);
    if (!idle) deferred = isConnectDeferredLocked(req, proxy);
  }
  closeAged(req, proxy, aged);
  if (deferred) return nullptr;
  if (!idle) return connectNew(req, proxy);

  req->trace(req, "%s pooled socket [%d] returned", proxy->name, idle->socket);
  return idle;
}

bool isPooled(const VeskConnection* connection) {
  return connection->next != nullptr;
}

// What has come on a connection that lay idle, a kIdle value. What a server says on it
// now belongs to no request, and would be taken for the answer to the next.
static std::int32_t lookAt(vesk_request* req, const VeskConnection* connection) {
  if (!isPooled(connection) || !guarded(req, Guard::latebytes)) return kIdleQuiet;
  return req->peek(req, connection->socket);
}

// Drops a connection that was found unusable before anything went out on it: that is no
// failure of the request. A server that closed one has most likely closed the others, so
// these go with it, like behind a reset; stray bytes tell of their own connection alone.
static void dropUnquiet(vesk_request* req, veskProxy* proxy, VeskConnection* connection,
                        std::int32_t found) {
  req->log(req, "%s %s an idle connection [%d], which is not used", proxy->name,
           found == kIdleBytes ? "sent bytes on" : "closed", connection->socket);
  const std::int32_t before = req->lastError;
  req->lastError = found == kIdleBytes ? EVESK_PROTOCOL : ECONNRESET;
  destroyVeskConnection(req, proxy, connection);
  req->lastError = before;
}

// One try with a connection: whether it went well. Else the connection is gone, and
// `goOn` tells whether another may be tried: a pooled one may have gone stale, which says
// nothing about the server.
static bool tryConnection(vesk_request* req, veskProxy* proxy, VeskConnection* connection,
                          const ConnectionTry& attempt, bool* goOn) {
  // Read while the record lives: a failed one is freed before anybody is told.
  const bool pooled = isPooled(connection);
  const std::int32_t sock = connection->socket;
  *goOn = pooled;
  const std::int32_t found = lookAt(req, connection);
  if (found != kIdleQuiet) {
    dropUnquiet(req, proxy, connection, found);
    return false;
  }
  if (attempt.run(req, proxy, sock, attempt.context)) return true;
  destroyVeskConnection(req, proxy, connection);
  if (attempt.report) attempt.report(req, proxy, sock, pooled, attempt.context);
  if (pooled && attempt.mayGoOn) *goOn = attempt.mayGoOn(req, proxy, attempt.context);
  return false;
}

// No counter is needed: each pass that goes on has used up a pooled connection, and a
// new one ends the loop either way.
VeskConnection* takeConnection(veskProxy* proxy, vesk_request* req,
                               const ConnectionTry& attempt) {
  bool goOn = true;
  while (goOn) {
    VeskConnection* connection = getVeskConnectionFromPool(proxy, req);
    if (!connection) return nullptr;
    if (tryConnection(req, proxy, connection, attempt, &goOn)) return connection;
  }
  return nullptr;
}

void returnVeskConnectionToPool(vesk_request* req, veskProxy* proxy,
                                VeskConnection* connection) {
  // Once it lies in the list another thread may take and free it.
  const std::int32_t sock = connection->socket;
  {
    SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    // A connection that comes back whole is the proof that the server can be reached.
    clearRetryTimeLocked(req, proxy);
    connection->idleSince = req->now(req);
    connection->next = proxy->pool->freeConnections;
    proxy->pool->freeConnections = connection;
  }
  // A conversation that began before the server went out of service proves nothing.
  if (isServerDown(proxy) && isProxyActive(proxy)) (void)serverCameUp(req, proxy);
  req->trace(req, "%s returned socket [%d] to pool", proxy->name, sock);
}

// Whether an error on one connection makes the idle ones suspect. A timeout and
// a lack of memory tell nothing about them, nor do the connector's own codes.
static bool spoilsIdleConnections(std::int32_t error) {
  return error > 0 && error != ETIMEDOUT && error != ENOBUFS;
}

// REQUIRES: `lock`.
static void noteLostConnectionLocked(vesk_request* req, veskProxy* proxy,
                                     std::int64_t now) {
  if (isVeskServerUnreachable(req, 0)) {
    markUnreachableLocked(req, proxy, now);
    req->traceE(req, kTraceDetail, "%s server unreachable, set proxy retry timer",
                proxy->name);
  } else {
    clearRetryTimeLocked(req, proxy);
  }
  if (spoilsIdleConnections(req->lastError)) proxy->destroyPooledSockets(req, proxy);
  // A server that lost a connection may have been started anew, with other mappings.
  if (proxy->mapCheckInterval != 0) setMapCheckTime(proxy, now - 1);
}

void destroyVeskConnection(vesk_request* req, veskProxy* proxy,
                           VeskConnection* connection) {
  const std::int64_t now = req->now(req);
  {
    SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
    req->trace(req, "%s destroying/closing socket [%d] error %d", proxy->name,
               connection->socket, req->lastError);
    noteLostConnectionLocked(req, proxy, now);
  }
  if (isVeskServerUnreachable(req, 0)) serverWentDown(req, proxy, "connection");
  req->closeSocket(req, connection->socket);
  req->permFree(req, connection);
}

// A server that reset one connection has reset them all, or will: each would cost a
// request its first try. The lock stays held, since the list must not be seen
// half-closed.
void proxy_destroyPooledSockets(vesk_request* req, veskProxy* proxy) {
  if (!proxy->pool || !proxy->pool->freeConnections) return;
  req->traceE(req, kTraceDetail, "%s freeing pooled sockets", proxy->name);
  VeskConnection* all = proxy->pool->freeConnections;
  proxy->pool->freeConnections = nullptr;
  closeList(req, all);
}

std::int32_t sendPingMsg(vesk_request* req, veskProxy* proxy, std::int32_t sock) {
  char ping[kWordSize];
  putWord(ping, PROXY_PING);
  const std::int32_t result = sendBytes(req, ping, kWordSize, sock);
  if (result < 0) {
    req->traceE(req, kTraceState, "%s couldn't ping via [%d]", proxy->name, sock);
  } else {
    req->traceE(req, kTraceDetail, "%s is reachable", proxy->name);
  }
  return result;
}
