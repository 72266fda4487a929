#include "maptable/table_lifecycle.h"

#include <cstdlib>

#include "context/memory.h"
#include "context/vesk_mutex.h"
#include "maptable/dispatch.h"
#include "maptable/request_filter.h"
#include "maptable/table_startup.h"
#include "proxy/proxy_lifecycle.h"

// The only place that names all that a table can do; whatever a test or a guard puts in
// the place of one is put there afterwards.
static void installOperations(mappingsTable* table) {
  table->initTable = initOrAwaitTable;
  table->filterRequest = filterRequest;
  table->handleRequest = handleRequest;
  table->handleRequestWithIndex = handleRequestWithIndex;
  table->ignoreSuffixMap = ignoreSuffixMap;
  table->newProxy = veskProxyNew;
}

// Whether a copy is there of a text that was given. The allocator is asked for a
// null as well: its line tells in the log that a source isn't configured.
static bool copySource(vesk_request* req, const char* text, char** copy) {
  *copy = req->permStrdup(req, text);
  return *copy || !text;
}

// Fills a cleared record. A table that has lost a source or a lock to exhausted
// memory would fail much later and in the dark, so it isn't made at all.
static bool fillRecord(mappingsTable* table, vesk_request* req, const char* store,
                       const char* bootstrap) {
  installOperations(table);
  table->mappings =
      static_cast<propertyTable*>(newPermZeroed(req, sizeof(propertyTable)));
  if (!table->mappings) return false;
  if (!copySource(req, bootstrap, &table->bootstrapServer)) return false;
  if (!copySource(req, store, &table->serverStore)) return false;
  std::srand(static_cast<unsigned>(req->now(req)));  // for RANDOM_WEIGHTED
  // Locks belong to the process and not to the request that makes them.
  initSync(nullptr, &table->tableMutex, &table->tableMutexHeld);
  initSync(nullptr, &table->initMutex, &table->initMutexHeld);
  return table->tableMutex && table->initMutex;
}

mappingsTable* mappingsTableNew(vesk_request* req, const char* store,
                                const char* bootstrap, std::uint32_t retryInterval) {
  auto* table = static_cast<mappingsTable*>(newPermZeroed(req, sizeof(mappingsTable)));
  if (!table) return nullptr;
  table->proxyRetryInterval = retryInterval;
  if (fillRecord(table, req, store, bootstrap)) return table;
  mappingsTableDelete(table, req);  // it copes with every partial state
  return nullptr;
}

// Nobody else can hold a reference that counts: stages that are running have ended.
static void destroyProxy(vesk_request* req, veskProxy* proxy) {
  while (proxy->release(proxy, req) > 0) continue;
  (void)proxy->destroyInetProxy(proxy, req);  // no reference is left
}

static void freeMapping(mappingsTable* table, vesk_request* req, std::int32_t index) {
  freePerm(req, table->mappingProxies[index]);
  mappingBalance* balance = table->mappingBalances[index];
  if (!balance) return;
  freePerm(req, balance->weightSlots);
  req->permFree(req, balance);
}

void mappingsTableDelete(mappingsTable* table, vesk_request* req) {
  if (!table) return;
  freeProperties(req, table->mappings);
  freePerm(req, table->bootstrapServer);
  freePerm(req, table->serverStore);
  freePerm(req, table->storedServers);
  for (std::int32_t i = 0; i < table->masterList.count; ++i)
    destroyProxy(req, table->masterList.proxies[i]);
  // Up to the last one, whose index is 0 as well in a table that has none.
  for (std::int32_t i = 0; i <= table->lastMapping; ++i) freeMapping(table, req, i);
  freeSync(req, &table->tableMutex, &table->tableMutexHeld);
  freeSync(req, &table->initMutex, &table->initMutexHeld);
  req->permFree(req, table);
}
