#include "layer/server_hooks.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>

namespace host {

// The holder may enter again, as with the critical sections of web servers.
struct CriticalSection {
  std::recursive_mutex mutex;
  CriticalSection* next;
};

struct RestartCallback {
  void (*fn)(void*);
  void* data;
  RestartCallback* next;
};

static std::atomic<LogFunction> logFunction{nullptr};
static std::atomic<const char*> version{"host"};
static char defaultHostName[] = "localhost";
static conf_global_vars_s settings{0, defaultHostName, 0};

// Guards the two lists.
static std::mutex listLock;
static CriticalSection* sections = nullptr;
static RestartCallback* callbacks = nullptr;
static RestartCallback* lastCallback = nullptr;

void setProcessLog(LogFunction log) {
  logFunction = log;
}

void processLog(int degree, const char* function, const char* message) {
  LogFunction log = logFunction;
  if (log) log(degree, function, message);
}

conf_global_vars_s* processSettings() {
  return &settings;
}

void setServerVersion(const char* text) {
  version = text;
}

const char* serverVersion() {
  return version;
}

CRITICAL newCriticalSection() {
  auto* section = new (std::nothrow) CriticalSection{{}, nullptr};
  if (!section) return nullptr;
  std::lock_guard guard(listLock);
  section->next = sections;
  sections = section;
  return section;
}

void enterCriticalSection(CRITICAL section) {
  if (section) static_cast<CriticalSection*>(section)->mutex.lock();
}

void leaveCriticalSection(CRITICAL section) {
  if (section) static_cast<CriticalSection*>(section)->mutex.unlock();
}

void releaseCriticalSections() {
  std::lock_guard guard(listLock);
  while (sections) {
    CriticalSection* next = sections->next;
    delete sections;
    sections = next;
  }
}

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

// A callback may register another one, which runs in the next round.
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
