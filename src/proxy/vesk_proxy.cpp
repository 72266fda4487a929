#include "proxy/vesk_proxy.h"

#include <atomic>
#include <cerrno>

#include "context/guards.h"
#include "context/vesk_mutex.h"

std::int32_t proxyAddRef(veskProxy* proxy, vesk_request* req) {
  SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
  return ++proxy->refCount;
}

// Never below 0: the table releases until 0 and then destroys, whatever was counted.
std::int32_t proxyRelease(veskProxy* proxy, vesk_request* req) {
  SyncGuard guard{req, &proxy->lock, &proxy->lockHeld};
  if (proxy->refCount > 0) --proxy->refCount;
  return proxy->refCount;
}

void setNextMapCheckTime(vesk_request* /*req*/, veskProxy* proxy, std::int64_t now) {
  const std::int32_t interval = proxy->mapCheckInterval;
  setMapCheckTime(proxy, interval != 0 ? now + interval : kNever);
}

std::int32_t retryPause(const vesk_request* req, const veskProxy* proxy) {
  const std::int32_t interval = proxy->proxyRetryInterval;
  // Out of service without a timer would be out for ever. A temp proxy is in no list.
  if (interval <= 0 && proxy->balance && guarded(req, Guard::comeback))
    return kShortPause;
  return interval;
}

// An interval of 0 switches the timed retry off, and a timer of 0 says "not marked".
void setNextProxyRetryTime(vesk_request* req, veskProxy* proxy, std::int64_t now) {
  const std::int32_t interval = retryPause(req, proxy);
  setProxyRetryTime(proxy, interval != 0 ? now + interval : 0);
}

std::int32_t isVeskServerUnreachable(const vesk_request* req, std::int32_t connecting) {
  switch (req->lastError) {
    case ECONNREFUSED:
    case EHOSTDOWN:
    case EHOSTUNREACH:
      return 1;
      // While connecting, these two mean that nobody is there. On a connection that
      // served before they say only that this one is gone.
    case EPIPE:
    case ETIMEDOUT:
      return connecting != 0 ? 1 : 0;
    default:
      return 0;
  }
}

// The accesses below are relaxed: each field is looked at for itself, and whoever
// acts on what it saw takes the lock and looks again.

static std::int64_t loadNumber(const std::int64_t* field) {
  return std::atomic_ref<std::int64_t>(*const_cast<std::int64_t*>(field))
      .load(std::memory_order_relaxed);
}

static void storeNumber(std::int64_t* field, std::int64_t number) {
  std::atomic_ref<std::int64_t>(*field).store(number, std::memory_order_relaxed);
}

// A temp proxy stands in no list, so nobody may take it for one in service.
bool isProxyActive(const veskProxy* proxy) {
  if (!proxy->balance) return false;
  return std::atomic_ref<std::uint32_t>(proxy->balance->active)
             .load(std::memory_order_relaxed) != 0;
}

// Kept by the pool and by the table alike: each sees at its next look what the other
// found.
void setProxyActive(veskProxy* proxy, bool active) {
  if (!proxy->balance) return;
  std::atomic_ref<std::uint32_t>(proxy->balance->active)
      .store(active ? 1 : 0, std::memory_order_relaxed);
}

bool isProxyUnlisted(const veskProxy* proxy) {
  return std::atomic_ref(const_cast<veskProxy*>(proxy)->unlisted)
             .load(std::memory_order_relaxed) != 0;
}

void setProxyUnlisted(veskProxy* proxy, bool unlisted) {
  std::atomic_ref(proxy->unlisted).store(unlisted ? 1 : 0, std::memory_order_relaxed);
}

// The request wakes the thread through a mutex: no order is needed here either.
void setProxyWanted(veskProxy* proxy) {
  std::atomic_ref(proxy->wanted).store(1, std::memory_order_relaxed);
}

bool takeProxyWanted(veskProxy* proxy) {
  return std::atomic_ref(proxy->wanted).exchange(0, std::memory_order_relaxed) != 0;
}

std::int64_t getProxyWeight(const veskProxy* proxy) {
  return proxy->balance ? loadNumber(&proxy->balance->weight) : 0;
}

void setProxyWeight(veskProxy* proxy, std::int64_t weight) {
  if (proxy->balance) storeNumber(&proxy->balance->weight, weight);
}

std::int64_t getProxyRetryTime(const veskProxy* proxy) {
  return loadNumber(&proxy->nextProxyRetryTime);
}

void setProxyRetryTime(veskProxy* proxy, std::int64_t time) {
  storeNumber(&proxy->nextProxyRetryTime, time);
}

std::int64_t getMapCheckTime(const veskProxy* proxy) {
  return loadNumber(&proxy->nextMapCheckTime);
}

void setMapCheckTime(veskProxy* proxy, std::int64_t time) {
  storeNumber(&proxy->nextMapCheckTime, time);
}
