#include "context/vesk_mutex.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>

// A mutex for when there is no host. Locks are never given back, so all of them
// hang on one list: a leak check then finds them in use.
struct FallbackMutex {
  pthread_mutex_t mutex;
  FallbackMutex* next;
};

// The head of that list. Threads push without a lock; nobody takes away.
static FallbackMutex* fallbackMutexes;

static void* fallbackInit() {
  auto* made = static_cast<FallbackMutex*>(std::malloc(sizeof(FallbackMutex)));
  if (!made) return nullptr;
  if (pthread_mutex_init(&made->mutex, nullptr) != 0) {
    std::free(made);
    return nullptr;
  }
  const std::atomic_ref<FallbackMutex*> head(fallbackMutexes);
  made->next = head.load();
  while (!head.compare_exchange_weak(made->next, made)) {
  }
  return made;
}

static void fallbackEnter(void* lock) {
  (void)pthread_mutex_lock(&static_cast<FallbackMutex*>(lock)->mutex);
}

static void fallbackExit(void* lock) {
  (void)pthread_mutex_unlock(&static_cast<FallbackMutex*>(lock)->mutex);
}

static constexpr LockOperations kFallbackLocks = {
    .init = fallbackInit, .enter = fallbackEnter, .exit = fallbackExit};

static const LockOperations* lockOperations = &kFallbackLocks;

void installLockOperations(const LockOperations* operations) {
  lockOperations = operations ? operations : &kFallbackLocks;
}

// A host whose sections don't exclude is told of and not stopped: the connector can't
// mend it, and ending the web server would be worse.
static void reportBroken(vesk_request* req, const char* function) {
  if (req) req->log(req, "%s - detected broken mutex!", function);
}

bool isSyncHeld(const std::int32_t* held) {
  return std::atomic_ref(const_cast<std::int32_t&>(*held))
             .load(std::memory_order_relaxed) == 1;
}

static void setHeld(std::int32_t* held, std::int32_t value) {
  std::atomic_ref(*held).store(value, std::memory_order_relaxed);
}

void initSync(vesk_request* req, void** lock, std::int32_t* held) {
  *lock = lockOperations->init();
  *held = 0;
  if (!*lock && req) req->log(req, "initSync - the host gave no lock!");
}

void startSync(vesk_request* req, void** lock, std::int32_t* held) {
  // Without a handle there is nothing to wait for, and the flag is unguarded.
  if (!*lock) return;
  // The flag is written behind the entry only: outside it tells of others.
  lockOperations->enter(*lock);
  if (isSyncHeld(held)) reportBroken(req, "startSync");
  setHeld(held, 1);
}

void stopSync(vesk_request* req, void** lock, std::int32_t* held) {
  if (!*lock) return;
  if (!isSyncHeld(held)) reportBroken(req, "stopSync");
  setHeld(held, 0);
  lockOperations->exit(*lock);
}

void freeSync(vesk_request* /*req*/, void** /*lock*/, std::int32_t* /*held*/) {}
