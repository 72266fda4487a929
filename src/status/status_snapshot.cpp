#include "status/status_snapshot.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "context/memory.h"
#include "context/vesk_mutex.h"
#include "maptable/request_lock.h"

template <typename Number>
static Number load(const Number& field) {
  return std::atomic_ref(const_cast<Number&>(field)).load(std::memory_order_relaxed);
}

template <typename Record>
static Record* newRecords(vesk_request* req, std::int64_t count) {
  return static_cast<Record*>(
      newZeroed(req, count * static_cast<std::int64_t>(sizeof(Record))));
}

// What is copied under tableMutex: no more than pointers and numbers.
static void copyMappings(const mappingsTable* table, statusSnapshot* snapshot) {
  for (std::int32_t i = 0; i < snapshot->mappingCount; ++i) {
    const proxyList* list = table->mappingProxies[i];
    const std::int64_t* hits = table->mappingBalances[i]->hits;
    const auto active = std::count_if(list->active, list->active + list->count,
                                      [](std::uint32_t flag) { return flag != 0; });
    snapshot->mappings[i] = {.pattern = table->patterns[i].text,
                             .hits = hits ? load(*hits) : 0,
                             .servers = list->count,
                             .active = static_cast<std::int32_t>(active)};
  }
}

static std::int32_t countIdle(const veskProxy* proxy) {
  std::int32_t count = 0;
  if (!proxy->pool) return 0;
  for (const VeskConnection* idle = proxy->pool->freeConnections; idle; idle = idle->next)
    ++count;
  return count;
}

// What `lock` guards; null is a proxy that was never set up.
static void describePool(vesk_request* req, veskProxy* proxy, statusServer* server) {
  const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
  server->idle = countIdle(proxy);
  server->mappings = proxy->mappings ? proxy->mappings->count : 0;
}

static void describeBalance(const veskProxy* proxy, statusServer* server) {
  const proxyBalance* balance = proxy->balance;
  if (!balance) return;
  server->weight = getProxyWeight(proxy);
  server->algorithm = balance->algorithm;
  server->sticky = balance->sticky != 0;
  if (balance->replicationId)
    std::strncpy(server->replicationId, balance->replicationId, kBoardNameSize - 1);
}

static void describeServer(vesk_request* req, veskProxy* proxy, std::int64_t now,
                           statusServer* server) {
  std::memcpy(server->name, proxy->name, sizeof server->name);
  server->state = load(proxy->history.state);
  server->since = load(proxy->history.since);
  const std::int64_t retry = getProxyRetryTime(proxy);
  if (retry > now && retry != kNever) server->retryIn = retry - now;
  server->drained = isDrained(proxy->place);
  server->running = load(proxy->conversations);
  describeBalance(proxy, server);
  describePool(req, proxy, server);
  if (proxy->place) readCounters(&proxy->place->counters, &server->counters);
}

// Proxies live as long as the table, so they can be looked at without its lock.
struct TableCopy {
  veskProxy* proxies[kMaxProxies];
  std::int32_t count;
};

// A table that isn't filled yet is another lock's; it has nothing to show.
static bool copyTable(vesk_request* req, mappingsTable* table, statusSnapshot* snapshot,
                      TableCopy* copy) {
  snapshot->mappings = newRecords<statusMapping>(req, kMaxMappings);
  if (!snapshot->mappings) return false;
  snapshot->bootstrap = table->bootstrapServer;
  snapshot->store = table->serverStore;
  snapshot->filled = isFilled(table);
  if (!snapshot->filled) return true;
  const RequestLock lock(table, req);
  snapshot->clustered = isClustered(table);
  snapshot->sequence = table->clusterSeq;
  snapshot->mappingCount = table->mappings->count;
  copyMappings(table, snapshot);
  copy->count = table->masterList.count;
  std::copy_n(table->masterList.proxies, copy->count, copy->proxies);
  return true;
}

static bool describeTable(vesk_request* req, mappingsTable* table,
                          statusSnapshot* snapshot) {
  TableCopy copy;
  copy.count = 0;
  if (!copyTable(req, table, snapshot, &copy)) return false;
  snapshot->servers = newRecords<statusServer>(req, copy.count + 1);
  if (!snapshot->servers) return false;
  for (std::int32_t i = 0; i < copy.count; ++i)
    describeServer(req, copy.proxies[i], snapshot->now, &snapshot->servers[i]);
  snapshot->serverCount = copy.count;
  return true;
}

static void describeBoard(statusSnapshot* snapshot) {
  counterBoard* board = getBoard();
  if (!board) return;
  snapshot->started = load(board->started);
  snapshot->processes = countProcesses(board);
  snapshot->shared = isBoardShared();
  snapshot->lockWaits = load(board->lockWaits);
  snapshot->lockMicros = load(board->lockMicros);
  for (std::int32_t i = 0; i < kOutcomeKinds; ++i)
    snapshot->requests[i] = load(board->requests[i]);
}

static bool describeEvents(vesk_request* req, statusSnapshot* snapshot) {
  snapshot->events = newRecords<veskEvent>(req, kJournalSize);
  if (!snapshot->events) return false;
  snapshot->eventCount = copyEvents(snapshot->events, kJournalSize);
  return true;
}

bool takeSnapshot(vesk_request* req, mappingsTable* table, statusSnapshot* snapshot) {
  *snapshot = {};
  snapshot->now = req->now(req);
  snapshot->pid = getpid();
  snapshot->version = "";
  describeBoard(snapshot);
  if ((!table || describeTable(req, table, snapshot)) && describeEvents(req, snapshot))
    return true;
  freeSnapshot(req, snapshot);
  return false;
}

static void release(vesk_request* req, void* block) {
  if (block) req->free(req, block);
}

void freeSnapshot(vesk_request* req, statusSnapshot* snapshot) {
  release(req, snapshot->servers);
  release(req, snapshot->mappings);
  release(req, snapshot->events);
  *snapshot = {};
}

const char* stateWord(const statusServer& server) {
  switch (server.state) {
    case kServerUp:
      return server.drained ? "draining" : "up";
    case kServerDown:
      return "down";
    case kServerGone:
      return "gone";
    default:
      return "new";
  }
}

const char* errorKindWord(std::int32_t kind) {
  static constexpr const char* kWords[kErrorKinds] = {
      "refused", "timeout", "reset", "busy", "protocol", "client", "memory", "other"};
  return kWords[kind];
}

std::int64_t attemptsOf(const serverCounters& counters) {
  return counters.served + errorsOf(counters);
}
