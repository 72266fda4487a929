#include "maptable/vesk_maptable_impl.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "context/vesk_mutex.h"
#include "maptable/dispatch.h"
#include "maptable/request_filter.h"
#include "maptable/table_startup.h"

static void installOperations(mappingsTable* table) {
  table->initTable = initTable;
  table->filterRequest = filterRequest;
  table->handleRequest = handleRequest;
  table->handleRequestWithIndex = handleRequestWithIndex;
  table->ignoreSuffixMap = ignoreSuffixMap;
}

// Whether a copy is there of a text that was given. The allocator is asked for a
// null as well: its line tells in the log that a source isn't configured.
static bool copyText(vesk_request* req, const char* text, char** copy) {
  *copy = req->permStrdup(req, text);
  return *copy || !text;
}

// Fills a cleared record. A table that has lost a source or a lock to exhausted
// memory would fail much later and in the dark, so it isn't made at all.
static bool fillRecord(mappingsTable* table, vesk_request* req, const char* store,
                       const char* bootstrap) {
  installOperations(table);
  table->mappings =
      static_cast<propertyTable*>(req->permMalloc(req, sizeof(propertyTable)));
  if (!table->mappings) return false;
  std::memset(table->mappings, 0, sizeof(propertyTable));
  if (!copyText(req, bootstrap, &table->bootstrapServer)) return false;
  if (!copyText(req, store, &table->serverStore)) return false;
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  initSync(nullptr, &table->tableMutex, &table->tableMutexHeld);
  initSync(nullptr, &table->initMutex, &table->initMutexHeld);
  return table->tableMutex && table->initMutex;
}

mappingsTable* mappingsTableNew(vesk_request* req, const char* store,
                                const char* bootstrap, std::uint32_t retryInterval) {
  auto* table = static_cast<mappingsTable*>(req->permMalloc(req, sizeof(mappingsTable)));
  if (!table) return nullptr;
  std::memset(table, 0, sizeof(*table));
  table->proxyRetryInterval = retryInterval;
  if (fillRecord(table, req, store, bootstrap)) return table;
  mappingsTableDelete(table, req);
  return nullptr;
}

static void freeGiven(vesk_request* req, void* block) {
  if (block) req->permFree(req, block);
}

static void destroyProxy(vesk_request* req, veskProxy* proxy) {
  while (proxy->release(proxy, req) > 0) continue;
  (void)proxy->destroyInetProxy(proxy, req);  // no reference is left
}

static void freeMapping(mappingsTable* table, vesk_request* req, std::int32_t index) {
  freeGiven(req, table->mappingProxies[index]);
  mappingBalance* balance = table->mappingBalances[index];
  if (!balance) return;
  freeGiven(req, balance->weightSlots);
  req->permFree(req, balance);
}

void mappingsTableDelete(mappingsTable* table, vesk_request* req) {
  if (!table) return;
  freeProperties(req, table->mappings);
  freeGiven(req, table->bootstrapServer);
  freeGiven(req, table->serverStore);
  freeGiven(req, table->storedServers);
  for (std::int32_t i = 0; i < table->masterList.count; ++i)
    destroyProxy(req, table->masterList.proxies[i]);
  for (std::int32_t i = 0; i <= table->lastMapping; ++i) freeMapping(table, req, i);
  freeSync(req, &table->tableMutex, &table->tableMutexHeld);
  freeSync(req, &table->initMutex, &table->initMutexHeld);
  req->permFree(req, table);
}

bool isClustered(mappingsTable* table) {
  return std::atomic_ref(table->clustered).load() != 0;
}

void setClustered(mappingsTable* table) {
  std::atomic_ref(table->clustered).store(1);
}

static const char* orNull(const char* text) {
  return text ? text : "Null";
}

static void dumpServers(const proxyList* list, vesk_request* req) {
  for (std::int32_t i = 0; list && i < list->count; ++i)
    req->trace(req, "      %s active: %i", list->proxies[i]->name,
               isProxyActive(list->proxies[i]) ? 1 : 0);
}

void dumpMappings(mappingsTable* table, vesk_request* req, const char* label) {
  req->trace(req, "%s", label);
  for (std::int32_t i = 0; i < table->mappings->count; ++i) {
    const property* mapping = &table->mappings->entries[i];
    req->trace(req, "   %s=%s", orNull(mapping->key), orNull(mapping->value));
    dumpServers(table->mappingProxies[i], req);
  }
}
