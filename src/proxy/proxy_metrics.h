// How long the requests of one server took: kept while the option `metrics` is on, and
// told in the log when the proxy goes.
//
// Ownership: the proxy's, from permMalloc.
// Threads: any; the metrics have a lock of their own, which is always taken alone.
// Failure: null without memory or without a lock. Units: milliseconds, requests.
#pragma once

#include "proxy/vesk_proxy.h"

// New metrics that begin with the request's startTime, or null.
[[nodiscard]] proxyMetrics* newMetrics(vesk_request* req);

// The `requestEnded` operation; its contract stands in the record.
void requestEnded(veskProxy* proxy, vesk_request* req);

// Tells the totals in the log and frees the metrics of a proxy that goes; without
// metrics nothing happens. No other thread may know the proxy any more.
void reportAndDestroyMetrics(veskProxy* proxy, vesk_request* req);
