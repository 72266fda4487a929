#include "proxy/proxy_metrics.h"

#include "context/clock.h"
#include "context/memory.h"
#include "context/text.h"
#include "context/vesk_mutex.h"

// Metrics without a lock would count wrong under load and look right: none at all is
// better.
proxyMetrics* newMetrics(vesk_request* req) {
  auto* metrics = static_cast<proxyMetrics*>(newPermZeroed(req, sizeof(proxyMetrics)));
  if (!metrics) return nullptr;
  metrics->startMillis = req->startTime;
  metrics->batchStartMillis = req->startTime;
  metrics->batchSize = kMetricsBatchSize;
  initSync(req, &metrics->lock, &metrics->lockHeld);
  if (metrics->lock) return metrics;
  req->permFree(req, metrics);
  return nullptr;
}

// Enters one ended request. REQUIRES: the lock of the metrics.
static void countRequestLocked(proxyMetrics* metrics, std::int64_t now,
                               std::int64_t startTime) {
  metrics->lastResponseMillis = now - startTime;
  ++metrics->requestCount;
  // The average of a batch is the time that it took as a whole, idle time included.
  if (metrics->requestCount % metrics->batchSize == 0) {
    metrics->batchAverageMillis = (now - metrics->batchStartMillis) / metrics->batchSize;
    metrics->batchStartMillis = now;
  }
  metrics->totalResponseMillis += metrics->lastResponseMillis;
}

void requestEnded(veskProxy* proxy, vesk_request* req) {
  proxyMetrics* metrics = proxy->metrics;
  if (!veskMetrics || !metrics) return;
  const SyncGuard guard{req, &metrics->lock, &metrics->lockHeld};
  timeval clock;
  gtod(&clock);
  countRequestLocked(metrics, tvToMillis(&clock), req->startTime);
}

void reportAndDestroyMetrics(veskProxy* proxy, vesk_request* req) {
  proxyMetrics* metrics = proxy->metrics;
  if (!metrics) return;
  const std::int64_t requests = metrics->requestCount;
  const std::int64_t average = metrics->totalResponseMillis / (requests ? requests : 1);
  req->log(req, "proxy metrics for %s", proxy->name);
  req->log(req, "\tAverage response time: %i ms", clampToInt32(average));
  req->log(req, "\tTotal Requests handled: %i", clampToInt32(requests));
  freeSync(req, &metrics->lock, &metrics->lockHeld);
  req->permFree(req, metrics);
}
