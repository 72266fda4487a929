#include "maptable/server_join.h"

#include <cerrno>

#include "context/guards.h"
#include "maptable/awaited_servers.h"
#include "maptable/membership.h"
#include "maptable/table_guard.h"
#include "proxy/proxy_refresh.h"

// The room is asked for before the server is: a table that is full would make a proxy of
// each further name, only to throw it away. addProxy asks again, for another thread may
// have been faster.
ServerJoin joinServer(mappingsTable* table, vesk_request* req, const char* server,
                      std::uint32_t lock) {
  {
    const TableGuard guard(table, req, lock);
    if (!hasRoomForServer(table)) return ServerJoin::full;
  }
  // Made before the server is known to be of use: what it says is kept in the record.
  veskProxy* proxy = table->newProxy(req);
  if (!proxy) return ServerJoin::noMemory;
  const auto interval = static_cast<std::int32_t>(table->proxyRetryInterval);
  req->lastError = 0;  // an older reason must not pass for the one of this failure
  if (proxy->initProxy(proxy, req, server, interval, 0) == 0 &&
      addProxy(table, proxy, req, lock) == 0)
    return ServerJoin::joined;
  const bool starved = req->lastError == ENOBUFS;
  (void)proxy->destroyInetProxy(proxy, req);  // nobody else holds a reference
  return starved ? ServerJoin::noMemory : ServerJoin::failed;
}

// What the table has to say of a name before anybody is asked.
struct KnownServer {
  veskProxy* proxy;  // null: it never joined
  bool active;       // it takes part
  bool awaitedLater;
};

// The pointer stays good without the lock: a proxy never leaves the table.
static KnownServer lookUp(mappingsTable* table, vesk_request* req, const char* server,
                          std::uint32_t lock) {
  const TableGuard guard(table, req, lock);
  const std::int32_t at = hasProxyNamed(table, server);
  if (at < 0) return {nullptr, false, isAwaitedLater(table, req, server)};
  veskProxy* proxy = table->masterList.proxies[at];
  return {proxy, table->masterList.active[at] != 0 && isProxyActive(proxy), false};
}

// The next attempt of a server that failed now is settled here, so that whoever brings
// the list need not try again before.
static ServerJoin admitNew(mappingsTable* table, vesk_request* req, const char* server,
                           std::uint32_t lock) {
  const ServerJoin outcome = joinServer(table, req, server, lock);
  const TableGuard guard(table, req, lock);
  if (outcome == ServerJoin::joined) forgetAwaited(table, server);
  const bool lost = outcome == ServerJoin::noMemory;
  if (!lost && outcome != ServerJoin::failed) return outcome;
  const bool awaited = awaitServer(table, req, server);
  // A server that memory ran out for is awaited, and is told as lost all the same: the
  // store must not forget it.
  return awaited && !lost ? ServerJoin::later : outcome;
}

static ServerJoin activateKnown(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                                std::uint32_t lock) {
  // There is room for a known one, so nothing but memory can be missing.
  return addProxy(table, proxy, req, lock) < 0 ? ServerJoin::noMemory : ServerJoin::known;
}

// A server that is out comes back by its timer, if it has one, and else by an answer: it
// may have been out because no list named it.
static ServerJoin admitKnown(mappingsTable* table, vesk_request* req,
                             const KnownServer& known, std::uint32_t lock) {
  veskProxy* proxy = known.proxy;
  if (!known.active) {
    // Its timer says when; the list says only that it is wanted.
    if (getProxyRetryTime(proxy) != 0) return ServerJoin::later;
    req->lastError = 0;  // what another server did doesn't put off this one's connect
    if (answersQuestion(proxy, req) == 0) return ServerJoin::later;
  }
  return activateKnown(table, req, proxy, lock);
}

ServerJoin admitServer(mappingsTable* table, vesk_request* req, const char* server,
                       std::uint32_t lock) {
  const KnownServer known = lookUp(table, req, server, lock);
  if (known.proxy) setProxyUnlisted(known.proxy, false);
  if (guarded(req, Guard::comeback)) {
    if (known.proxy) return admitKnown(table, req, known, lock);
    return known.awaitedLater ? ServerJoin::later : admitNew(table, req, server, lock);
  }
  if (!known.proxy) return joinServer(table, req, server, lock);
  return activateKnown(table, req, known.proxy, lock);
}

// One line for all of them: a list may name hundreds.
void reportServersRefused(vesk_request* req, std::int32_t refused) {
  if (refused == 0) return;
  req->log(req, "%d servers not added, the table is full at %d servers", refused,
           kMaxProxies);
}
