#include "nsapi/host_locks.h"

#include <nsapi.h>

#include "context/vesk_mutex.h"

// The host's names are macros over its dispatch table: they have no address to put
// into a table of ours, and what lies behind them is known only when we are loaded.
static void* hostLockInit() {
  return crit_init();
}

static void hostLockEnter(void* lock) {
  crit_enter(static_cast<CRITICAL>(lock));
}

static void hostLockExit(void* lock) {
  crit_exit(static_cast<CRITICAL>(lock));
}

// There is no fourth one: the API can't give a critical section back. Static, for the
// locks refer to it as long as the process lives.
static constexpr LockOperations kHostLocks = {
    .init = hostLockInit, .enter = hostLockEnter, .exit = hostLockExit};

void installHostLocks() {
  installLockOperations(&kHostLocks);
}
