#include "layer/restart_callbacks.h"

#include <mutex>
#include <new>

namespace host {

struct RestartCallback {
  void (*fn)(void*);
  void* data;
  RestartCallback* next;
};

static std::mutex listLock;
// Guarded by listLock.
static RestartCallback* callbacks = nullptr;
static RestartCallback* lastCallback = nullptr;

bool addRestartCallback(void (*fn)(void*), void* data) {
  if (!fn) return false;
  auto* callback = new (std::nothrow) RestartCallback{fn, data, nullptr};
  if (!callback) return false;
  std::lock_guard guard(listLock);
  (lastCallback ? lastCallback->next : callbacks) = callback;
  lastCallback = callback;
  return true;
}

static RestartCallback* takeCallbacks() {
  std::lock_guard guard(listLock);
  RestartCallback* first = callbacks;
  callbacks = lastCallback = nullptr;
  return first;
}

// The list is taken before it is run, so that no lock is held while a plug-in
// works: a callback may register another one, which runs in the next round.
void runRestartCallbacks() {
  for (RestartCallback* list = takeCallbacks(); list; list = takeCallbacks()) {
    while (list) {
      RestartCallback* next = list->next;
      list->fn(list->data);
      delete list;
      list = next;
    }
  }
}

}  // namespace host
