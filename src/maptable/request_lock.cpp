#include "maptable/request_lock.h"

#include <atomic>

#include "context/clock.h"
#include "proxy/counter_board.h"

void RequestLock::waitForTable(mappingsTable* table, vesk_request* req) {
  const std::int64_t begin = monotonicMicros();
  startSync(req, &table->tableMutex, &table->tableMutexHeld);
  counterBoard* board = getBoard();
  if (!board) return;
  std::atomic_ref(board->lockWaits).fetch_add(1, std::memory_order_relaxed);
  std::atomic_ref(board->lockMicros)
      .fetch_add(monotonicMicros() - begin, std::memory_order_relaxed);
}
