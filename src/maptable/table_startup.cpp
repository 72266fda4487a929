#include "maptable/table_startup.h"

#include "context/guards.h"
#include "context/held_requests.h"
#include "context/vesk_mutex.h"
#include "maptable/maintenance_queue.h"
#include "maptable/membership.h"
#include "maptable/question_limit.h"
#include "maptable/server_join.h"
#include "maptable/server_store.h"
#include "maptable/table_events.h"
#include "maptable/table_guard.h"
#include "proxy/proxy_props.h"

// What came of a list.
struct ListOutcome {
  std::int32_t joined;  // new servers
  bool complete;        // every server of the list takes part
  bool starved;         // memory ran out for one
};

static ListOutcome joinServers(mappingsTable* table, vesk_request* req,
                               const propertyTable* servers, std::uint32_t lock) {
  ListOutcome list{0, true, false};
  std::int32_t refused = 0;
  const SharedLimit shared(req, servers->count);
  for (std::int32_t i = 0; i < servers->count; ++i) {
    const ServerJoin outcome = admitServer(table, req, servers->entries[i].value, lock);
    if (outcome == ServerJoin::joined) ++list.joined;
    // One that serves is enough to begin with: requests need not wait for those behind it
    // in the list, which may take every connection and never answer.
    if (outcome == ServerJoin::joined && table->queue) noteFilled(table);
    if (outcome == ServerJoin::full) ++refused;
    if (outcome == ServerJoin::noMemory) list.starved = true;
    if (outcome != ServerJoin::joined && outcome != ServerJoin::known)
      list.complete = false;
  }
  reportServersRefused(req, refused);
  return list;
}

// Joins the servers of a list, frees it, and keeps them in the store; but the store, and
// a restart with it, would lose a server that memory ran out for.
static ListOutcome applyList(mappingsTable* table, vesk_request* req,
                             propertyTable* servers, std::uint32_t lock) {
  const ListOutcome list = joinServers(table, req, servers, lock);
  // A failed write has been logged; the servers serve all the same.
  if (!list.starved) (void)persistServers(table, req, lock);
  freeProperties(req, servers);
  return list;
}

static std::int32_t resultOf(const ListOutcome& list) {
  return list.starved ? -1 : list.joined;
}

std::int32_t addRemoteJvms(mappingsTable* table, vesk_request* req,
                           propertyTable* servers, std::uint32_t lock) {
  if (guarded(req, Guard::stall)) return resultOf(applyList(table, req, servers, lock));
  const TableGuard guard(table, req, lock);
  return resultOf(applyList(table, req, servers, 0));
}

static void adoptSequence(mappingsTable* table, vesk_request* req, std::int32_t sequence,
                          std::uint32_t lock) {
  const TableGuard guard(table, req, lock);
  table->clusterSeq = sequence;
}

// Joins what the bootstrap server has answered; the list is freed. With the guard
// `comeback` its number counts only when all of its servers have joined: the first reply
// then brings the list again.
static std::int32_t applyBootstrapList(mappingsTable* table, vesk_request* req,
                                       propertyTable* servers, std::int32_t sequence,
                                       std::uint32_t lock) {
  if (servers->count == 0) {
    freeProperties(req, servers);
    return 0;
  }
  const bool early = !guarded(req, Guard::comeback);
  if (sequence > 0) setClustered(table);
  if (sequence > 0 && early) adoptSequence(table, req, sequence, lock);
  const ListOutcome list = applyList(table, req, servers, lock);
  if (sequence > 0 && !early && list.complete) adoptSequence(table, req, sequence, lock);
  if (list.starved) adoptSequence(table, req, 0, lock);  // the next reply brings it anew
  if (list.joined > 0 && !list.starved) table->bootstrapped = 1;
  reportClusterNews(table, req, sequence, lock);
  return resultOf(list);
}

static std::int32_t askBootstrapServer(mappingsTable* table, vesk_request* req,
                                       veskProxy* bootstrap, std::uint32_t lock) {
  const auto interval = static_cast<std::int32_t>(table->proxyRetryInterval);
  if (bootstrap->initProxy(bootstrap, req, table->bootstrapServer, interval, 1) != 0)
    return 0;
  std::int32_t sequence = 0;
  propertyTable* servers = bootstrap->fetchProps(req, bootstrap, kClusterSet, &sequence);
  return servers ? applyBootstrapList(table, req, servers, sequence, lock) : 0;
}

std::int32_t retrieveServersFromBootstrapServer(mappingsTable* table, vesk_request* req,
                                                std::uint32_t lock) {
  if (!table->bootstrapServer || table->bootstrapServer[0] == '\0') {
    req->log(req, "can't retrieve servers from server, no bootstrap specified.");
    return 0;
  }
  req->trace(req, "trying to bootstrap from \"%s\"", table->bootstrapServer);
  veskProxy* bootstrap = table->newProxy(req);
  if (!bootstrap) return 0;
  const std::int32_t joined = askBootstrapServer(table, req, bootstrap, lock);
  (void)bootstrap->destroyInetProxy(bootstrap, req);  // it never entered the table
  return joined;
}

std::int32_t loadServersFromStore(mappingsTable* table, vesk_request* req) {
  propertyTable* servers = readStoredServers(table, req);
  const std::int32_t joined = servers ? addRemoteJvms(table, req, servers, 1) : -1;
  reportClusterNews(table, req, 0, 1);
  return joined;
}

static bool hasServers(mappingsTable* table, vesk_request* req, std::uint32_t lock) {
  const TableGuard guard(table, req, lock);
  return table->masterList.count > 0;
}

// A start-up that ran out of memory for a server isn't one: its URIs would go unrouted,
// and nothing would look for them. The servers that have joined by then are no new ones
// to the next attempt, so what counts is that the table has any.
//
// Under the guard `stall` another thread may look at what there is so far, so each change
// takes the lock; without it initMutex keeps all others out.
// REQUIRES: initMutex.
static std::int32_t fillTable(mappingsTable* table, vesk_request* req) {
  if (isFilled(table)) return 0;
  const HoldsTable holds(req, true);
  const std::uint32_t lock = guarded(req, Guard::stall) ? 1 : 0;
  std::int32_t joined = retrieveServersFromBootstrapServer(table, req, lock);
  if (joined == 0) joined = loadServersFromStore(table, req);
  if (joined >= 0 && hasServers(table, req, lock)) {
    setFilled(table);
    return 0;
  }
  req->log(req, "Couldn't initialize from remote server, Vesk server(s) probably down.");
  return -1;
}

std::int32_t initTable(mappingsTable* table, vesk_request* req) {
  WaitingRequest waiting(req);
  const SyncGuard guard(req, &table->initMutex, &table->initMutexHeld);
  waiting.pass();
  return fillTable(table, req);
}

std::int32_t initOrAwaitTable(mappingsTable* table, vesk_request* req) {
  return table->queue ? awaitTable(table, req) : initTable(table, req);
}
