// Holds `tableMutex` for a scope, where an argument says that the caller doesn't.
//
// What changes the table takes such an argument, `lock`: 1, the mutex is taken here, for
// the change alone; 0, the caller holds it all along. For locals only.
#pragma once

#include "context/vesk_mutex.h"
#include "maptable/vesk_maptable_impl.h"

struct TableGuard {
  TableGuard(mappingsTable* owner, vesk_request* request, std::uint32_t lock)
      : table(lock ? owner : nullptr), req(request) {
    if (table) startSync(req, &table->tableMutex, &table->tableMutexHeld);
  }
  ~TableGuard() {
    if (table) stopSync(req, &table->tableMutex, &table->tableMutexHeld);
  }
  TableGuard(const TableGuard&) = delete;
  TableGuard& operator=(const TableGuard&) = delete;

  mappingsTable* table;  // null: there is nothing to leave
  vesk_request* req;
};
