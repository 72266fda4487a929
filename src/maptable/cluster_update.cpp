#include "maptable/cluster_update.h"

#include "context/vesk_mutex.h"
#include "maptable/membership.h"
#include "maptable/server_join.h"
#include "maptable/server_store.h"
#include "proxy/proxy_props.h"

// One update that has its list.
struct ClusterUpdate {
  mappingsTable* table;
  vesk_request* req;
  const veskProxy* source;       // the server that answered
  const propertyTable* servers;  // the list
  std::int32_t sequence;         // its number, or -1
  bool failed;                   // a new server couldn't be set up
  std::int32_t refused;          // new servers that found the table full
};

static bool isApplied(const mappingsTable* table, std::int32_t sequence) {
  return sequence == 0 || sequence == table->clusterSeq;
}

static void joinNamedServer(ClusterUpdate* update, const proxyList* snapshot,
                            const char* server) {
  const std::int32_t at = hasProxyNamed(update->table, server);
  if (at < 0) {
    const ServerJoin outcome = joinServer(update->table, update->req, server);
    if (outcome == ServerJoin::failed) update->failed = true;
    if (outcome == ServerJoin::full) ++update->refused;
    return;
  }
  // What this pass has itself added lies behind the snapshot's end.
  if (at < snapshot->count && snapshot->active[at] == 0 &&
      addProxy(update->table, snapshot->proxies[at], update->req, 0) < 0)
    update->failed = true;
}

static bool isNamed(const propertyTable* servers, const veskProxy* proxy) {
  for (std::int32_t i = 0; i < servers->count; ++i)
    if (isProxyNamed(proxy, servers->entries[i].value)) return true;
  return false;
}

static void removeUnnamedServers(const ClusterUpdate* update, const proxyList* snapshot) {
  for (std::int32_t i = 0; i < snapshot->count; ++i) {
    if (snapshot->active[i] == 0) continue;
    veskProxy* proxy = snapshot->proxies[i];
    if (!isNamed(update->servers, proxy))
      removeProxy(update->table, proxy, update->req, 0);
  }
}

// A removal clears clusterSeq, so the number is adopted last.
static void adoptSequence(const ClusterUpdate* update) {
  mappingsTable* table = update->table;
  vesk_request* req = update->req;
  if (update->failed) {
    req->traceE(req, kTraceState, "%s error updating clusters so seq is %d",
                update->source->name, static_cast<std::int32_t>(table->clusterSeq));
    return;
  }
  table->clusterSeq = update->sequence;
  req->traceE(req, kTraceState, "%s clusters updated using seq %d", update->source->name,
              update->sequence);
}

// REQUIRES: tableMutex.
static void applyList(ClusterUpdate* update) {
  mappingsTable* table = update->table;
  const proxyList snapshot = table->masterList;
  setClustered(table);
  update->req->trace(update->req, "Using sequence number %d from %s", update->sequence,
                     update->source->name);
  for (std::int32_t i = 0; i < update->servers->count; ++i)
    joinNamedServer(update, &snapshot, update->servers->entries[i].value);
  reportServersRefused(update->req, update->refused);
  removeUnnamedServers(update, &snapshot);
  (void)persistServers(table, update->req);  // it has logged, and is tried again
  adoptSequence(update);
}

// REQUIRES: tableMutex.
static void updateLocked(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                         std::int32_t sequence) {
  if (isApplied(table, sequence)) {
    req->traceE(req, kTraceDetail, "%s updateClusteredServers: seq %d, seen seq %d",
                proxy->name, sequence, static_cast<std::int32_t>(table->clusterSeq));
    return;
  }
  req->traceE(req, kTraceState, "%s cluster info is stale %d, refreshing ...",
              proxy->name, sequence);
  propertyTable* servers = proxy->fetchProps(req, proxy, kClusterSet, &sequence);
  if (!servers || servers->count == 0) {
    req->traceE(req, kTraceState, "%s clustered-servers not updated", proxy->name);
  } else if (!isApplied(table, sequence)) {
    ClusterUpdate update{.table = table,
                         .req = req,
                         .source = proxy,
                         .servers = servers,
                         .sequence = sequence,
                         .failed = false,
                         .refused = 0};
    applyList(&update);
  }
  freeProperties(req, servers);
}

void updateClusteredServers(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                            std::int32_t sequence) {
  const SyncGuard guard(req, &table->tableMutex, &table->tableMutexHeld);
  updateLocked(table, req, proxy, sequence);
}
