#include "context/vesk_request.h"

#include <atomic>

std::int32_t veskNSAPIVerbose = 0;
std::uint64_t veskEnabledTraceFlags = 0;
std::int32_t veskUseApiAlloc = 0;
std::int32_t veskMetrics = 0;
std::int32_t soTimeouts[3] = {0, 0, 0};
std::uint32_t veskGuards = 0;
std::int32_t veskIdleTimeout = kDefaultIdleTimeout;
std::int32_t veskMaintenanceTimeout = kDefaultMaintenanceTimeout;
std::int32_t veskRequestTimeout = 0;
std::int32_t veskMaxPerServer = 0;
vesk_request globalRequest;
std::uint8_t gShutdown = 0;

bool isShuttingDown() {
  return std::atomic_ref(gShutdown).load(std::memory_order_acquire) != 0;
}

// The shutdown goes on to take the table down: whoever sees the flag must also see
// all that was written before it.
void setShuttingDown(bool on) {
  std::atomic_ref(gShutdown).store(on ? 1 : 0, std::memory_order_release);
}

// The node is made before the block is taken over: on failure the caller still owns it.
std::int32_t keepBlock(vesk_request* req, void* block) {
  auto* node = static_cast<veskKeptBlock*>(req->malloc(req, sizeof(veskKeptBlock)));
  if (!node) return -1;
  *node = {.next = req->keptBlocks, .block = block};
  req->keptBlocks = node;
  return 0;
}

void releaseKeptBlocks(vesk_request* req) {
  veskKeptBlock* node = req->keptBlocks;
  // Emptied first, so that a `free` that looks at the record finds nothing half-released.
  req->keptBlocks = nullptr;
  while (node) {
    veskKeptBlock* next = node->next;
    req->free(req, node->block);
    req->free(req, node);
    node = next;
  }
}
