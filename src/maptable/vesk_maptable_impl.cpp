#include "maptable/vesk_maptable_impl.h"

#include <atomic>

#include "context/text.h"

// Whoever sees the table filled must see all that filled it.
bool isFilled(mappingsTable* table) {
  return std::atomic_ref(table->initialized).load(std::memory_order_acquire) != 0;
}

void setFilled(mappingsTable* table) {
  std::atomic_ref(table->initialized).store(1, std::memory_order_release);
}

bool isClustered(mappingsTable* table) {
  return std::atomic_ref(table->clustered).load() != 0;
}

// Never cleared: a cluster of which one server is left may grow again, and until then
// failover finds nobody and does no harm.
void setClustered(mappingsTable* table) {
  std::atomic_ref(table->clustered).store(1);
}

// The proxy's own flag is shown and not the list's: the two differ exactly while a server
// is failing, which is when somebody reads this.
static void dumpServers(const proxyList* list, vesk_request* req) {
  for (std::int32_t i = 0; list && i < list->count; ++i)
    req->trace(req, "      %s active: %i", list->proxies[i]->name,
               isProxyActive(list->proxies[i]) ? 1 : 0);
}

// Asked after every change of the table. With `trace` off each line is an empty call, so
// the walk itself is all that it costs.
void dumpMappings(mappingsTable* table, vesk_request* req, const char* label) {
  req->trace(req, "%s", label);
  for (std::int32_t i = 0; i < table->mappings->count; ++i) {
    const property* mapping = &table->mappings->entries[i];
    req->trace(req, "   %s=%s", orElse(mapping->key, "Null"),
               orElse(mapping->value, "Null"));
    dumpServers(table->mappingProxies[i], req);
  }
}
