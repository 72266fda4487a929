#include "layer/critical_sections.h"

#include <mutex>
#include <new>

namespace host {

// The API has no call that ends a section, so each stands in a list: what a
// plug-in leaves behind when it is unloaded is freed all the same.
struct CriticalSection {
  std::recursive_mutex mutex;  // as with the critical sections of web servers
  CriticalSection* next;
};

static std::mutex listLock;
static CriticalSection* sections = nullptr;  // guarded by listLock

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

}  // namespace host
