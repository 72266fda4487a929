#include "maptable/membership.h"

#include <cstring>

#include "context/memory.h"
#include "context/vesk_mutex.h"

// A rotation that starts here lands on the first entry.
constexpr std::int32_t kBeforeFirst = -1;
constexpr std::int32_t kNotFound = -1;

// One call of addProxy or updateProxy.
struct Join {
  mappingsTable* table;
  veskProxy* proxy;
  vesk_request* req;
  bool sorted;        // the new mappings are merged into matching order
  std::int32_t near;  // where the next key is probably found
};

bool isProxyNamed(const veskProxy* proxy, const char* text) {
  return std::strncmp(proxy->name, text, kProxyNameSize - 1) == 0;
}

bool hasRoomForServer(const mappingsTable* table) {
  return table->masterList.count < kMaxProxies;
}

static std::int32_t findByName(const proxyList* list, const char* name) {
  for (std::int32_t i = 0; i < list->count; ++i)
    if (isProxyNamed(list->proxies[i], name)) return i;
  return kNotFound;
}

static std::int32_t findProxy(const proxyList* list, const veskProxy* proxy) {
  for (std::int32_t i = 0; i < list->count; ++i)
    if (list->proxies[i] == proxy) return i;
  return kNotFound;
}

std::int32_t hasProxyNamed(const mappingsTable* table, const char* name) {
  return findByName(&table->masterList, name);
}

// Index of a key, or -1. The search begins at `near`: two servers of a cluster
// send nearly the same keys in the same order, so it mostly ends there.
static std::int32_t findKey(const propertyTable* pairs, const char* key,
                            std::int32_t near) {
  for (std::int32_t i = 0; i < pairs->count; ++i) {
    const std::int32_t at = (near + i) % pairs->count;
    if (std::strcmp(pairs->entries[at].key, key) == 0) return at;
  }
  return kNotFound;
}

static bool appendProxy(proxyList* list, veskProxy* proxy) {
  if (list->count >= kMaxProxies) return false;
  list->proxies[list->count] = proxy;
  list->active[list->count] = 1;
  ++list->count;
  return true;
}

static void appendToMapping(const Join* join, std::int32_t index) {
  if (appendProxy(join->table->mappingProxies[index], join->proxy)) return;
  join->req->log(join->req, "%s not added to mapping %s, its list is full at %d servers",
                 join->proxy->name, join->table->mappings->entries[index].key,
                 kMaxProxies);
}

static void setAnyActive(mappingsTable* table, std::int32_t index) {
  const proxyList* list = table->mappingProxies[index];
  std::uint32_t any = 0;
  for (std::int32_t i = 0; i < list->count; ++i)
    if (list->active[i] != 0) any = 1;
  table->mappingBalances[index]->anyActive = any;
}

// One mapping in all columns, while it is moved.
struct MappingRow {
  property pair;
  proxyList* list;
  mappingBalance* balance;
  uriPattern pattern;
};

static MappingRow rowAt(const mappingsTable* table, std::int32_t index) {
  return {.pair = table->mappings->entries[index],
          .list = table->mappingProxies[index],
          .balance = table->mappingBalances[index],
          .pattern = table->patterns[index]};
}

static void putRow(mappingsTable* table, std::int32_t index, const MappingRow& row) {
  table->mappings->entries[index] = row.pair;
  table->mappingProxies[index] = row.list;
  table->mappingBalances[index] = row.balance;
  table->patterns[index] = row.pattern;
}

void mergeNewMapping(mappingsTable* table, vesk_request* req) {
  (void)req;  // part of the operation's form; there is nothing to report
  if (table->mappings->count < 1) return;
  std::int32_t at = table->mappings->count - 1;
  const MappingRow held = rowAt(table, at);
  for (; at > 0 && held.pattern.rank > table->patterns[at - 1].rank; --at)
    putRow(table, at, rowAt(table, at - 1));
  putRow(table, at, held);
}

// A list of this one server and its balance under a new key: the index, or -1.
// Both blocks stay the caller's on failure.
static std::int32_t linkMapping(const Join* join, const property* pair, proxyList* list,
                                mappingBalance* balance) {
  mappingsTable* table = join->table;
  (void)appendProxy(list, join->proxy);  // an empty list takes it
  balance->algorithm = join->proxy->balance->algorithm;
  balance->sticky = join->proxy->balance->sticky;
  balance->slotsStale = 1;
  const std::int32_t index =
      setProperty(join->req, table->mappings, pair->key, pair->value);
  if (index < 0) return kNotFound;
  table->mappingProxies[index] = list;
  table->mappingBalances[index] = balance;
  table->patterns[index] = splitPattern(table->mappings->entries[index].key);
  table->lastMapping = index;
  return index;
}

// Adds a mapping that this server alone serves, at the end of the table: its
// balance, or null with nothing changed. A full table logs what it refuses.
static mappingBalance* createMapping(const Join* join, const property* pair) {
  vesk_request* req = join->req;
  auto* balance =
      static_cast<mappingBalance*>(newPermZeroed(req, sizeof(mappingBalance)));
  if (!balance) return nullptr;
  auto* list = static_cast<proxyList*>(newPermZeroed(req, sizeof(proxyList)));
  if (list && linkMapping(join, pair, list, balance) >= 0) return balance;
  freePerm(req, list);
  req->permFree(req, balance);
  return nullptr;
}

// While the table is being built, the server that came last sets the rules.
static void adoptSettings(const Join* join, std::int32_t index) {
  mappingBalance* mapping = join->table->mappingBalances[index];
  const proxyBalance* server = join->proxy->balance;
  vesk_request* req = join->req;
  if (mapping->algorithm != server->algorithm)
    req->log(req, "Conflicting load balancing algorithm entries %d vs. %d for %s",
             static_cast<int>(mapping->algorithm), static_cast<int>(server->algorithm),
             join->proxy->name);
  mapping->algorithm = server->algorithm;
  if (mapping->sticky != server->sticky)
    req->log(req, "Conflicting sticky session values for %s", join->proxy->name);
  mapping->sticky = server->sticky;
}

static void activateInMapping(const Join* join, std::int32_t index) {
  proxyList* list = join->table->mappingProxies[index];
  const std::int32_t at = findByName(list, join->proxy->name);
  if (at < 0) {
    appendToMapping(join, index);
    return;
  }
  setProxyActive(list->proxies[at], true);
  list->active[at] = 1;
  join->req->trace(join->req,
                   "Proxy %s already exists for mapping %s, not adding a duplicate",
                   join->proxy->name, join->table->mappings->entries[index].key);
}

static void joinNewMapping(Join* join, const property* pair) {
  mappingBalance* balance = createMapping(join, pair);
  if (!balance) return;
  balance->anyActive = 1;
  balance->cursor = kBeforeFirst;
  if (join->sorted) mergeNewMapping(join->table, join->req);
}

static void joinKnownMapping(const Join* join, const property* pair, std::int32_t index) {
  mappingsTable* table = join->table;
  vesk_request* req = join->req;
  const char* present = table->mappings->entries[index].value;
  if (std::strcmp(present, pair->value) != 0) {
    req->log(req, "Proxy %s already has mapping %s=%s, ignoring %s=%s mapping!",
             join->proxy->name, pair->key, present, pair->key, pair->value);
    return;
  }
  if (table->tableUse == kTableBuilding) adoptSettings(join, index);
  table->mappingBalances[index]->slotsStale = 1;
  table->mappingBalances[index]->anyActive = 1;
  activateInMapping(join, index);
}

static void activateInMasterList(mappingsTable* table, veskProxy* proxy) {
  proxyList* servers = &table->masterList;
  const std::int32_t at = hasProxyNamed(table, proxy->name);
  if (at >= 0) {
    servers->active[at] = 1;
    setProxyRetryTime(proxy, 0);
    return;
  }
  (void)appendProxy(servers, proxy);  // there is room, or addProxy had refused it
  if (servers->count > 1) setClustered(table);
}

// REQUIRES: tableMutex, `lock` of the proxy.
static void addProxyLocked(mappingsTable* table, veskProxy* proxy, vesk_request* req) {
  Join join{.table = table,
            .proxy = proxy,
            .req = req,
            .sorted = table->lastMapping != 0,
            .near = 0};
  const propertyTable* pairs = proxy->mappings;
  for (std::int32_t i = 0; pairs && i < pairs->count; ++i) {
    const property* pair = &pairs->entries[i];
    const std::int32_t index = findKey(table->mappings, pair->key, join.near);
    if (index < 0) {
      joinNewMapping(&join, pair);
      continue;
    }
    joinKnownMapping(&join, pair, index);
    join.near = index + 1;
  }
  activateInMasterList(table, proxy);
  dumpMappings(table, req, "addProxy - after");
}

static bool acceptsProxy(const mappingsTable* table, const veskProxy* proxy,
                         vesk_request* req) {
  if (hasRoomForServer(table) || hasProxyNamed(table, proxy->name) >= 0) return true;
  req->log(req, "%s not added, the table is full at %d servers", proxy->name,
           kMaxProxies);
  return false;
}

void addProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
              std::uint32_t lock) {
  if (lock) startSync(req, &table->tableMutex, &table->tableMutexHeld);
  const bool accepted = acceptsProxy(table, proxy, req);
  if (accepted) {
    const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
    addProxyLocked(table, proxy, req);
  }
  const auto sequence = static_cast<std::int32_t>(table->clusterSeq);
  if (lock) stopSync(req, &table->tableMutex, &table->tableMutexHeld);
  if (accepted)
    req->traceE(req, kTraceState, "%s added/activated proxy, seq %d", proxy->name,
                sequence);
}

static void leaveMapping(mappingsTable* table, veskProxy* proxy, std::int32_t index) {
  proxyList* list = table->mappingProxies[index];
  if (!list) return;  // index 0 of an empty table
  const std::int32_t at = findProxy(list, proxy);
  if (at >= 0) {
    setProxyActive(proxy, false);
    list->active[at] = 0;
  }
  setAnyActive(table, index);
  table->mappingBalances[index]->slotsStale = 1;
}

// REQUIRES: tableMutex, `lock` of the proxy.
static void removeProxyLocked(mappingsTable* table, veskProxy* proxy, vesk_request* req) {
  table->tableUse = kTableChanged;
  for (std::int32_t i = 0; i <= table->lastMapping; ++i) leaveMapping(table, proxy, i);
  const std::int32_t at = hasProxyNamed(table, proxy->name);
  if (at >= 0) {
    table->masterList.active[at] = 0;
    proxy->destroyPooledSockets(req, proxy);
  } else {
    req->log(req, "Whoa Nelly, removed proxy that's not in the master list %s",
             proxy->name);
  }
  table->clusterSeq = 0;
  req->traceE(req, kTraceState, "%s removed proxy, seq %d", proxy->name, 0);
  dumpMappings(table, req, "removeProxy - after");
}

void removeProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                 std::uint32_t lock) {
  if (lock) startSync(req, &table->tableMutex, &table->tableMutexHeld);
  {
    const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
    removeProxyLocked(table, proxy, req);
  }
  if (lock) stopSync(req, &table->tableMutex, &table->tableMutexHeld);
}

static void updateNewMapping(Join* join, const property* pair) {
  mappingBalance* balance = createMapping(join, pair);
  if (balance) balance->anyActive = isProxyActive(join->proxy) ? 1 : 0;
}

static void updateKnownMapping(const Join* join, const property* pair,
                               std::int32_t index) {
  mappingsTable* table = join->table;
  // Without memory the old value stays; the next refresh tries again.
  if (std::strcmp(table->mappings->entries[index].value, pair->value) != 0)
    (void)setProperty(join->req, table->mappings, pair->key, pair->value);
  table->mappingBalances[index]->slotsStale = 1;

  proxyList* list = table->mappingProxies[index];
  const std::int32_t at = findByName(list, join->proxy->name);
  if (at >= 0) {
    const bool active = isProxyActive(join->proxy);
    setProxyActive(list->proxies[at], active);
    list->active[at] = active ? 1 : 0;
  }
  setAnyActive(table, index);
  if (at < 0) appendToMapping(join, index);
}

static void updateServedMappings(Join* join) {
  const propertyTable* pairs = join->proxy->mappings;
  for (std::int32_t i = 0; i < pairs->count; ++i) {
    const property* pair = &pairs->entries[i];
    const std::int32_t index = findKey(join->table->mappings, pair->key, join->near);
    if (index < 0) {
      updateNewMapping(join, pair);
      continue;
    }
    updateKnownMapping(join, pair, index);
    join->near = index + 1;
  }
}

// The server has only stopped serving this mapping: the rest of its state stays.
static void dropMapping(mappingsTable* table, const veskProxy* proxy,
                        std::int32_t index) {
  proxyList* list = table->mappingProxies[index];
  const std::int32_t at = findProxy(list, proxy);
  if (at >= 0) {
    list->active[at] = 0;
    table->mappingBalances[index]->slotsStale = 1;
  }
  setAnyActive(table, index);
}

static void dropOtherMappings(mappingsTable* table, const veskProxy* proxy) {
  std::int32_t near = 0;
  for (std::int32_t i = 0; i < table->mappings->count; ++i) {
    const std::int32_t at =
        findKey(proxy->mappings, table->mappings->entries[i].key, near);
    if (at < 0)
      dropMapping(table, proxy, i);
    else
      near = at + 1;
  }
}

// REQUIRES: tableMutex, `lock` of the proxy.
static void updateProxyLocked(mappingsTable* table, veskProxy* proxy, vesk_request* req) {
  Join join{.table = table, .proxy = proxy, .req = req, .sorted = false, .near = 0};
  if (proxy->mappings) {
    updateServedMappings(&join);
    dropOtherMappings(table, proxy);
  }
  dumpMappings(table, req, "updateProxy - after");
}

void updateProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                 std::uint32_t lock) {
  if (lock) startSync(req, &table->tableMutex, &table->tableMutexHeld);
  table->tableUse = kTableChanged;
  {
    const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
    updateProxyLocked(table, proxy, req);
  }
  if (lock) stopSync(req, &table->tableMutex, &table->tableMutexHeld);
}
