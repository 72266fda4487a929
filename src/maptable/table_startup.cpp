#include "maptable/table_startup.h"

#include "context/vesk_mutex.h"
#include "maptable/membership.h"
#include "maptable/server_join.h"
#include "maptable/server_store.h"
#include "proxy/proxy_props.h"

// REQUIRES: tableMutex, or initMutex while the table is first filled.
static std::int32_t joinServers(mappingsTable* table, vesk_request* req,
                                const propertyTable* servers) {
  std::int32_t joined = 0;
  std::int32_t refused = 0;
  for (std::int32_t i = 0; i < servers->count; ++i) {
    const char* server = servers->entries[i].value;
    const std::int32_t at = hasProxyNamed(table, server);
    if (at >= 0) {
      (void)addProxy(table, table->masterList.proxies[at], req, 0);
      continue;
    }
    const ServerJoin outcome = joinServer(table, req, server);
    if (outcome == ServerJoin::joined) ++joined;
    if (outcome == ServerJoin::full) ++refused;
  }
  reportServersRefused(req, refused);
  return joined;
}

std::int32_t addRemoteJvms(mappingsTable* table, vesk_request* req,
                           propertyTable* servers, std::uint32_t lock) {
  if (lock) startSync(req, &table->tableMutex, &table->tableMutexHeld);
  const std::int32_t joined = joinServers(table, req, servers);
  (void)persistServers(table, req);  // it has logged; the servers serve all the same
  if (lock) stopSync(req, &table->tableMutex, &table->tableMutexHeld);
  freeProperties(req, servers);
  return joined;
}

// Joins what the bootstrap server has answered; the list is freed.
static std::int32_t applyBootstrapList(mappingsTable* table, vesk_request* req,
                                       propertyTable* servers, std::int32_t sequence) {
  if (servers->count == 0) {
    freeProperties(req, servers);
    return 0;
  }
  if (sequence > 0) {
    setClustered(table);
    table->clusterSeq = sequence;
  }
  const std::int32_t joined = addRemoteJvms(table, req, servers, 0);
  if (joined > 0) table->bootstrapped = 1;
  return joined;
}

static std::int32_t askBootstrapServer(mappingsTable* table, vesk_request* req,
                                       veskProxy* bootstrap) {
  const auto interval = static_cast<std::int32_t>(table->proxyRetryInterval);
  if (bootstrap->initProxy(bootstrap, req, table->bootstrapServer, interval, 1) != 0)
    return 0;
  std::int32_t sequence = 0;
  propertyTable* servers = bootstrap->fetchProps(req, bootstrap, kClusterSet, &sequence);
  return servers ? applyBootstrapList(table, req, servers, sequence) : 0;
}

std::int32_t retrieveServersFromBootstrapServer(mappingsTable* table, vesk_request* req) {
  if (!table->bootstrapServer || table->bootstrapServer[0] == '\0') {
    req->log(req, "can't retrieve servers from server, no bootstrap specified.");
    return 0;
  }
  req->trace(req, "trying to bootstrap from \"%s\"", table->bootstrapServer);
  veskProxy* bootstrap = table->newProxy(req);
  if (!bootstrap) return 0;
  const std::int32_t joined = askBootstrapServer(table, req, bootstrap);
  (void)bootstrap->destroyInetProxy(bootstrap, req);  // it never entered the table
  return joined;
}

std::int32_t loadServersFromStore(mappingsTable* table, vesk_request* req) {
  propertyTable* servers = readStoredServers(table, req);
  return servers ? addRemoteJvms(table, req, servers, 1) : 0;
}

// REQUIRES: initMutex.
static std::int32_t fillTable(mappingsTable* table, vesk_request* req) {
  if (table->initialized != 0) return 0;
  std::int32_t joined = retrieveServersFromBootstrapServer(table, req);
  if (joined == 0) joined = loadServersFromStore(table, req);
  if (joined > 0) {
    table->initialized = 1;
    return 0;
  }
  req->log(req, "Couldn't initialize from remote server, Vesk server(s) probably down.");
  return -1;
}

std::int32_t initTable(mappingsTable* table, vesk_request* req) {
  const SyncGuard guard(req, &table->initMutex, &table->initMutexHeld);
  return fillTable(table, req);
}
