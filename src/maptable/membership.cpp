#include "maptable/membership.h"

#include <cstring>
#include <iterator>

#include "context/guards.h"
#include "context/vesk_mutex.h"
#include "maptable/mapping_columns.h"
#include "maptable/table_events.h"
#include "maptable/table_guard.h"
#include "properties/property_index.h"
#include "proxy/counter_board.h"
#include "proxy/proxy_refresh.h"
#include "proxy/server_events.h"

// A rotation that starts here lands on the first entry.
constexpr std::int32_t kBeforeFirst = -1;
constexpr std::int32_t kNotFound = -1;
// Lines of one kind that one call writes, whatever the server sends: enough to see what
// is wrong. The table is locked meanwhile, and a server has up to 8192 mappings.
constexpr std::int32_t kLinesOfAKind = 10;

// What may be said of one mapping after the other, and how the rest of it is counted.
enum Remark { kTableFull, kListFull, kOtherTarget, kOtherAlgorithm, kOtherSticky };
constexpr const char* kRemarks[] = {
    "not added, the table is full",
    "whose list of servers is full",
    "with another target than the table's",
    "with a conflicting load balancing algorithm",
    "with conflicting sticky session values",
};

// One call of addProxy or updateProxy: a server's mappings meet those of the table.
// The new ones are all made before anything else changes, so that a call that runs out
// of memory can be taken back.
struct MappingChange {
  mappingsTable* table;
  veskProxy* proxy;
  vesk_request* req;
  std::int32_t firstNew;  // mappings of the table from here on were made by this call
  propertyIndex keys;     // of the table
  propertyMarks settled;  // pairs of the server that have made a mapping, or can't
  propertyMarks served;   // mappings of the table that the server has sent again
  std::int32_t remarks[std::size(kRemarks)];  // how often each had a reason
};

// A proxy keeps the first 63 bytes of its text. Compared whole, a longer one would be
// made anew by every list that names it, and thrown out again by the same list.
bool isProxyNamed(const veskProxy* proxy, const char* text) {
  return std::strncmp(proxy->name, text, kProxyNameSize - 1) == 0;
}

bool hasRoomForServer(const mappingsTable* table) {
  return table->masterList.count < kMaxProxies;
}

// By name where servers join: the same server may come as another record.
static std::int32_t findByName(const proxyList* list, const char* name) {
  for (std::int32_t i = 0; i < list->count; ++i)
    if (isProxyNamed(list->proxies[i], name)) return i;
  return kNotFound;
}

// By record where one leaves: what it never joined must not be cleared for another.
static std::int32_t findProxy(const proxyList* list, const veskProxy* proxy) {
  for (std::int32_t i = 0; i < list->count; ++i)
    if (list->proxies[i] == proxy) return i;
  return kNotFound;
}

std::int32_t hasProxyNamed(const mappingsTable* table, const char* name) {
  return findByName(&table->masterList, name);
}

static bool appendProxy(proxyList* list, veskProxy* proxy) {
  if (list->count >= kMaxProxies) return false;
  list->proxies[list->count] = proxy;
  list->active[list->count] = 1;
  ++list->count;
  return true;
}

// Counts a remark; true while it is to be written out.
static bool isShown(MappingChange* change, Remark remark) {
  return ++change->remarks[remark] <= kLinesOfAKind;
}

static void reportFurtherRemarks(const MappingChange& change) {
  for (std::size_t i = 0; i < std::size(kRemarks); ++i)
    if (change.remarks[i] > kLinesOfAKind)
      change.req->log(change.req, "%s: %d more %s", change.proxy->name,
                      change.remarks[i] - kLinesOfAKind, kRemarks[i]);
}

// A mapping whose list is full is served by those that came first; the server still
// serves its other mappings.
static void appendToMapping(MappingChange* change, std::int32_t index) {
  if (appendProxy(change->table->mappingProxies[index], change->proxy)) return;
  if (isShown(change, kListFull))
    change->req->log(
        change->req, "%s not added to mapping %s, its list is full at %d servers",
        change->proxy->name, change->table->mappings->entries[index].key, kMaxProxies);
}

// A request for a mapping with none active goes the expensive way, by pings; so this is
// counted when a list changes, and not when a request comes.
static void setAnyActive(mappingsTable* table, std::int32_t index) {
  const proxyList* list = table->mappingProxies[index];
  std::uint32_t any = 0;
  for (std::int32_t i = 0; i < list->count; ++i)
    if (list->active[i] != 0) any = 1;
  table->mappingBalances[index]->anyActive = any;
}

static void beginChange(MappingChange* change, mappingsTable* table, veskProxy* proxy,
                        vesk_request* req) {
  change->table = table;
  change->proxy = proxy;
  change->req = req;
  change->firstNew = table->mappings->count;
  indexProperties(&change->keys, table->mappings);
  change->settled = {};
  change->served = {};
  for (std::int32_t& count : change->remarks) count = 0;
}

// Makes the mapping of one pair if the table has none: false without memory. In a full
// table a pair is left out.
static bool createMapping(MappingChange* change, std::int32_t number) {
  mappingsTable* table = change->table;
  const property& pair = change->proxy->mappings->entries[number];
  if (findIndexed(&change->keys, pair.key) >= 0) return true;
  // The pair that makes a mapping is done with it; a second one of the same key is not,
  // and meets a known mapping like any other.
  markProperty(&change->settled, number);
  if (table->mappings->count >= kMaxMappings) {
    if (isShown(change, kTableFull))  // refused there, with the line
      (void)addCopies(change->req, table->mappings, pair.key, pair.value);
    return true;
  }
  const std::int32_t index = appendMapping(table, change->req, change->proxy, pair);
  if (index >= 0) enterIndexed(&change->keys, index);
  return index >= 0;
}

// Makes the mappings that the table lacks, at its end: 0, or -1 without memory; then it
// has none of them.
static std::int32_t createMappings(MappingChange* change) {
  const propertyTable* pairs = change->proxy->mappings;
  for (std::int32_t i = 0; i < pairs->count; ++i) {
    if (createMapping(change, i)) continue;
    takeBackMappings(change->table, change->req, change->firstNew);
    return -1;
  }
  // Read as the index of the last mapping only: it says nothing of an empty table.
  if (change->table->mappings->count > change->firstNew)
    change->table->lastMapping = change->table->mappings->count - 1;
  return 0;
}

// While the table is being built, the server that came last sets the rules. Once
// requests are served, a server that joins must not change how they are spread.
static void adoptSettings(MappingChange* change, std::int32_t index) {
  mappingBalance* mapping = change->table->mappingBalances[index];
  const proxyBalance* server = change->proxy->balance;
  vesk_request* req = change->req;
  if (mapping->algorithm != server->algorithm && isShown(change, kOtherAlgorithm))
    req->log(req, "Conflicting load balancing algorithm entries %d vs. %d for %s",
             static_cast<int>(mapping->algorithm), static_cast<int>(server->algorithm),
             change->proxy->name);
  mapping->algorithm = server->algorithm;
  if (mapping->sticky != server->sticky && isShown(change, kOtherSticky))
    req->log(req, "Conflicting sticky session values for %s", change->proxy->name);
  mapping->sticky = server->sticky;
}

static void activateInMapping(MappingChange* change, std::int32_t index) {
  proxyList* list = change->table->mappingProxies[index];
  const std::int32_t at = findByName(list, change->proxy->name);
  if (at < 0) {
    appendToMapping(change, index);
    return;
  }
  // Named by the cluster or revived: that counts as being in service until a connection
  // says otherwise.
  setProxyActive(list->proxies[at], true);
  list->active[at] = 1;
  change->req->trace(change->req,
                     "Proxy %s already exists for mapping %s, not adding a duplicate",
                     change->proxy->name, change->table->mappings->entries[index].key);
}

// Whether the server means the same by a pattern as those that came before it. If not,
// it doesn't serve the pattern: nobody knows which target a request wants.
static bool agreesOnTarget(MappingChange* change, const property& pair,
                           std::int32_t index) {
  const char* present = change->table->mappings->entries[index].value;
  if (std::strcmp(present, pair.value) == 0) return true;
  if (isShown(change, kOtherTarget))
    change->req->log(change->req,
                     "Proxy %s already has mapping %s=%s, ignoring %s=%s mapping!",
                     change->proxy->name, pair.key, present, pair.key, pair.value);
  return false;
}

static void joinKnownMapping(MappingChange* change, const property& pair,
                             std::int32_t index) {
  mappingsTable* table = change->table;
  if (!agreesOnTarget(change, pair, index)) return;
  if (table->tableUse == kTableBuilding) adoptSettings(change, index);
  table->mappingBalances[index]->slotsStale = 1;
  table->mappingBalances[index]->anyActive = 1;
  activateInMapping(change, index);
}

// A server's retry timer ends with its return: a pause that is left over would put off
// its connections and its refreshes.
static void activateInMasterList(mappingsTable* table, veskProxy* proxy,
                                 vesk_request* req) {
  proxyList* servers = &table->masterList;
  const std::int32_t at = hasProxyNamed(table, proxy->name);
  if (at >= 0) {
    servers->active[at] = 1;
    setProxyRetryTime(proxy, 0);
    // Also where no mapping of the table has taken it: without a timer it would stay out.
    if (guarded(req, Guard::comeback)) setProxyActive(proxy, true);
    return;
  }
  proxy->place = findBoardServer(req, proxy->name);
  (void)appendProxy(servers, proxy);  // there is room, or addProxy had refused it
  if (servers->count > 1) setClustered(table);
}

// The mappings of this call are at the end, where createMappings has put them; they move
// only when all has been looked up, since the index knows them by position.
static void joinMappings(MappingChange* change) {
  const propertyTable* pairs = change->proxy->mappings;
  mappingsTable* table = change->table;
  for (std::int32_t i = change->firstNew; i < table->mappings->count; ++i) {
    table->mappingBalances[i]->anyActive = 1;
    table->mappingBalances[i]->cursor = kBeforeFirst;
  }
  for (std::int32_t i = 0; i < pairs->count; ++i) {
    if (isMarked(change->settled, i)) continue;
    const property& pair = pairs->entries[i];
    joinKnownMapping(change, pair, findIndexed(&change->keys, pair.key));
  }
}

// REQUIRES: tableMutex, `lock` of the proxy.
static std::int32_t addProxyLocked(mappingsTable* table, veskProxy* proxy,
                                   vesk_request* req) {
  // Asked before anything joins: the mappings of a first server are in order already.
  // A table of one mapping can't be told from an empty one by this: what the second
  // server brings stands in its own order then, too.
  const bool sorted = table->lastMapping != 0;
  if (proxy->mappings) {
    MappingChange change;
    beginChange(&change, table, proxy, req);
    if (createMappings(&change) < 0) return -1;
    joinMappings(&change);
    if (sorted) mergeNewMapping(table, change.firstNew);
    reportFurtherRemarks(change);
  }
  activateInMasterList(table, proxy, req);
  dumpMappings(table, req, "addProxy - after");
  return 0;
}

// Refused whole rather than in part: a server that serves mappings and isn't in
// masterList could neither be removed nor freed.
static bool acceptsProxy(const mappingsTable* table, const veskProxy* proxy,
                         vesk_request* req) {
  if (hasRoomForServer(table) || hasProxyNamed(table, proxy->name) >= 0) return true;
  req->log(req, "%s not added, the table is full at %d servers", proxy->name,
           kMaxProxies);
  return false;
}

// What is told is the proxy's own state: a server that only its lists show as active is
// tried by nobody's choice. Without the guard `comeback` one that was out of service may
// be back unasked, for no other reason than that the list names it: its first answer
// tells then.
static void announceProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                          std::uint32_t lock) {
  if (isServerDown(proxy) && !guarded(req, Guard::comeback)) return;
  if (isProxyActive(proxy) && serverCameUp(req, proxy))
    noteJoined(table, req, proxy, lock);
}

std::int32_t addProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                      std::uint32_t lock) {
  std::int32_t result = -1;
  std::int32_t sequence = 0;
  {
    const TableGuard tableGuard(table, req, lock);
    if (acceptsProxy(table, proxy, req)) {
      const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
      result = addProxyLocked(table, proxy, req);
    }
    sequence = static_cast<std::int32_t>(table->clusterSeq);
  }
  // Told behind the locks: a line may wait for a disk.
  if (result == 0)
    req->traceE(req, kTraceState, "%s added/activated proxy, seq %d", proxy->name,
                sequence);
  if (result == 0) announceProxy(table, proxy, req, lock);
  return result;
}

// The sums of weights are made anew in every mapping, though only its own have changed: a
// removal is rare, and a sum that still counts the server would draw it.
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
  // The cluster may not know that its server is gone, and so may not change its number:
  // without one of our own, the next reply brings the list again whatever it says.
  table->clusterSeq = 0;
  req->traceE(req, kTraceState, "%s removed proxy, seq %d", proxy->name, 0);
  dumpMappings(table, req, "removeProxy - after");
}

void removeProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                 std::uint32_t lock) {
  const TableGuard tableGuard(table, req, lock);
  const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
  removeProxyLocked(table, proxy, req);
}

// Here the server's own word counts, also against the value that others have sent: it is
// the newest. False without memory: the old value stays then.
static bool updateKnownMapping(MappingChange* change, const property& pair,
                               std::int32_t index) {
  mappingsTable* table = change->table;
  const bool replaced =
      replaceValue(change->req, table->mappings, index, pair.value) >= 0;
  table->mappingBalances[index]->slotsStale = 1;

  proxyList* list = table->mappingProxies[index];
  const std::int32_t at = findByName(list, change->proxy->name);
  if (at >= 0) {
    const bool active = isProxyActive(change->proxy);
    setProxyActive(list->proxies[at], active);
    list->active[at] = active ? 1 : 0;
  }
  setAnyActive(table, index);
  // Behind the count: a server that is new to a mapping doesn't make it active.
  if (at < 0) appendToMapping(change, index);
  return replaced;
}

// A mapping that only a server out of service has brought counts as having none: a
// request for it must not meet that server without a ping. False when a value couldn't be
// replaced for want of memory.
static bool updateServedMappings(MappingChange* change) {
  const propertyTable* pairs = change->proxy->mappings;
  mappingsTable* table = change->table;
  for (std::int32_t i = change->firstNew; i < table->mappings->count; ++i)
    table->mappingBalances[i]->anyActive = isProxyActive(change->proxy) ? 1 : 0;
  bool whole = true;
  for (std::int32_t i = 0; i < pairs->count; ++i) {
    if (isMarked(change->settled, i)) continue;
    const property& pair = pairs->entries[i];
    const std::int32_t index = findIndexed(&change->keys, pair.key);
    markProperty(&change->served, index);
    whole = updateKnownMapping(change, pair, index) && whole;
  }
  return whole;
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

// The mappings of this call needn't be looked at: the server has just brought them.
static void dropOtherMappings(const MappingChange& change) {
  for (std::int32_t i = 0; i < change.firstNew; ++i)
    if (!isMarked(change.served, i)) dropMapping(change.table, change.proxy, i);
}

// An update that ran out of memory is made up for by the next refresh, which a server
// without an interval would never get.
static void askForRefresh(veskProxy* proxy, vesk_request* req) {
  if (proxy->mapCheckInterval == 0)
    setMapCheckTime(proxy, req->now(req) + kRefreshRetrySeconds);
}

// Whether all of the change was made; without memory for a new mapping, none of it.
static bool applyUpdate(MappingChange* change) {
  if (createMappings(change) < 0) return false;
  const bool whole = updateServedMappings(change);
  dropOtherMappings(*change);
  reportFurtherRemarks(*change);
  return whole;
}

// REQUIRES: tableMutex, `lock` of the proxy.
static void updateProxyLocked(mappingsTable* table, veskProxy* proxy, vesk_request* req) {
  if (proxy->mappings) {
    MappingChange change;
    beginChange(&change, table, proxy, req);
    if (!applyUpdate(&change)) askForRefresh(proxy, req);
  }
  dumpMappings(table, req, "updateProxy - after");
}

void updateProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                 std::uint32_t lock) {
  const TableGuard tableGuard(table, req, lock);
  const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
  table->tableUse = kTableChanged;
  updateProxyLocked(table, proxy, req);
}
