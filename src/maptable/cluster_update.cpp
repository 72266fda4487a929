#include "maptable/cluster_update.h"

#include "context/guards.h"
#include "context/held_requests.h"
#include "context/vesk_mutex.h"
#include "maptable/awaited_servers.h"
#include "maptable/maintenance_queue.h"
#include "maptable/membership.h"
#include "maptable/question_limit.h"
#include "maptable/server_join.h"
#include "maptable/server_store.h"
#include "maptable/table_events.h"
#include "maptable/table_guard.h"
#include "proxy/proxy_props.h"
#include "proxy/server_events.h"

// One update that has its list.
struct ClusterUpdate {
  mappingsTable* table;
  vesk_request* req;
  const veskProxy* source;       // the server that answered
  const propertyTable* servers;  // the list
  std::int32_t sequence;         // its number, or -1
  std::uint32_t lock;            // 1: each change takes tableMutex; 0: it is held
  bool failed;                   // a new server couldn't be set up
  std::int32_t refused;          // new servers that found the table full
};

// Compared for equality, since a cluster that was started anew counts from the beginning
// again. 0 is "no number" on the wire and "unknown" in the table; the two must never meet
// as equal.
static bool isApplied(const mappingsTable* table, std::int32_t sequence) {
  return sequence == 0 || sequence == table->clusterSeq;
}

// Without the guard `comeback` a server that the snapshot shows as active is left alone;
// with it admitServer knows what to do in every case.
static bool concernsUpdate(const ClusterUpdate* update, const proxyList* snapshot,
                           const char* server) {
  if (guarded(update->req, Guard::comeback)) return true;
  const TableGuard guard(update->table, update->req, update->lock);
  const std::int32_t at = hasProxyNamed(update->table, server);
  // What this pass has itself added lies behind the snapshot's end.
  return at < 0 || (at < snapshot->count && snapshot->active[at] == 0);
}

// A server that can't join doesn't keep the others from joining; it only keeps the number
// open. One that finds the table full doesn't, as no later attempt would change that.
static void joinNamedServer(ClusterUpdate* update, const proxyList* snapshot,
                            const char* server) {
  if (!concernsUpdate(update, snapshot, server)) return;
  const ServerJoin outcome =
      admitServer(update->table, update->req, server, update->lock);
  if (outcome == ServerJoin::failed || outcome == ServerJoin::noMemory)
    update->failed = true;
  if (outcome == ServerJoin::full) ++update->refused;
}

// The list is short, and names are compared as far as a proxy keeps them.
static bool isNamed(const propertyTable* servers, const veskProxy* proxy) {
  for (std::int32_t i = 0; i < servers->count; ++i)
    if (isProxyNamed(proxy, servers->entries[i].value)) return true;
  return false;
}

// Over the copy: what this update has itself brought in or back is new in it, or not
// active there, and so is left alone.
static void removeUnnamedServers(const ClusterUpdate* update, const proxyList* snapshot) {
  for (std::int32_t i = 0; i < snapshot->count; ++i) {
    veskProxy* proxy = snapshot->proxies[i];
    if (isNamed(update->servers, proxy)) continue;
    // Before the removal: from then on its timers may be looked at. Also one that is out
    // already must not come back by them.
    setProxyUnlisted(proxy, true);
    if (serverWasUnlisted(update->req, proxy))
      noteLeft(update->table, update->req, proxy, update->lock);
    // That one stays as it is: removing it again would clear the number that this update
    // is about to adopt.
    if (snapshot->active[i] == 0) continue;
    removeProxy(update->table, proxy, update->req, update->lock);
  }
}

// A removal clears clusterSeq, so the number is adopted last.
static void adoptSequence(const ClusterUpdate* update) {
  mappingsTable* table = update->table;
  vesk_request* req = update->req;
  const TableGuard guard(table, req, update->lock);
  // A list that couldn't be applied whole is not applied: the next reply tries again.
  if (update->failed) {
    req->traceE(req, kTraceState, "%s error updating clusters so seq is %d",
                update->source->name, static_cast<std::int32_t>(table->clusterSeq));
    return;
  }
  table->clusterSeq = update->sequence;
  req->traceE(req, kTraceState, "%s clusters updated using seq %d", update->source->name,
              update->sequence);
}

// The servers and flags that stood when the update began: joining changes both.
static proxyList copyOfServers(const ClusterUpdate* update) {
  const TableGuard guard(update->table, update->req, update->lock);
  keepAwaited(update->table, update->servers);
  return update->table->masterList;
}

static void applyList(ClusterUpdate* update) {
  mappingsTable* table = update->table;
  const proxyList snapshot = copyOfServers(update);
  setClustered(table);
  update->req->trace(update->req, "Using sequence number %d from %s", update->sequence,
                     update->source->name);
  const SharedLimit shared(update->req, update->servers->count);
  for (std::int32_t i = 0; i < update->servers->count; ++i)
    joinNamedServer(update, &snapshot, update->servers->entries[i].value);
  reportServersRefused(update->req, update->refused);
  removeUnnamedServers(update, &snapshot);
  // It has logged, and is tried again.
  (void)persistServers(table, update->req, update->lock);
  adoptSequence(update);
  reportClusterNews(table, update->req, update->sequence, update->lock);
}

// Asked twice, before the list is fetched and after: another thread may have applied it
// while this one was reading.
static bool isKnown(mappingsTable* table, vesk_request* req, std::int32_t sequence,
                    std::uint32_t lock) {
  const TableGuard guard(table, req, lock);
  return isApplied(table, sequence);
}

static std::int32_t seenSequence(mappingsTable* table, vesk_request* req,
                                 std::uint32_t lock) {
  const TableGuard guard(table, req, lock);
  return static_cast<std::int32_t>(table->clusterSeq);
}

void applyClusterNews(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                      std::int32_t sequence, std::uint32_t lock) {
  if (isKnown(table, req, sequence, lock)) {
    req->traceE(req, kTraceDetail, "%s updateClusteredServers: seq %d, seen seq %d",
                proxy->name, sequence, seenSequence(table, req, lock));
    return;
  }
  req->traceE(req, kTraceState, "%s cluster info is stale %d, refreshing ...",
              proxy->name, sequence);
  // The number that comes with the list replaces the one that came with the reply: the
  // list may have changed once more in between.
  propertyTable* servers = proxy->fetchProps(req, proxy, kClusterSet, &sequence);
  if (!servers || servers->count == 0) {
    req->traceE(req, kTraceState, "%s clustered-servers not updated", proxy->name);
  } else if (!isKnown(table, req, sequence, lock)) {
    ClusterUpdate update{.table = table,
                         .req = req,
                         .source = proxy,
                         .servers = servers,
                         .sequence = sequence,
                         .lock = lock,
                         .failed = false,
                         .refused = 0};
    applyList(&update);
  }
  freeProperties(req, servers);
}

// Only what might be news is left to the thread: most replies bring the number that is
// known.
static void leaveNewsForThread(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                               std::int32_t sequence) {
  if (!isKnown(table, req, sequence, 1)) leaveNews(table, proxy, sequence);
}

void updateClusteredServers(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                            std::int32_t sequence) {
  if (table->queue) return leaveNewsForThread(table, req, proxy, sequence);
  const SyncGuard guard(req, &table->tableMutex, &table->tableMutexHeld);
  const HoldsTable holds(req, true);
  applyClusterNews(table, req, proxy, sequence, 0);
}
