// The connector's own thread, which the guard `stall` alone starts: it asks servers about
// themselves, so that no request has to.
//
// What it does for the table's sake is what requests do without the guard: filling it,
// refreshing mappings, bringing servers back, following the cluster's list. Here
// tableMutex is held only to put results in, and each conversation has an end.
//
// Ownership: the thread belongs to the table from startMaintenance to stopMaintenance.
// Threads: both are called on the host's start-up or shutdown thread.
// Failure: a thread that can't be made leaves the work to the requests, with a log line.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// Starts the thread. `model` is a record without host objects, which is copied.
void startMaintenance(mappingsTable* table, const vesk_request* model);

// Stops it, within a second once the shutdown has begun, and frees what it had. Nothing
// happens where none runs. No other thread may know the table any more.
void stopMaintenance(mappingsTable* table, vesk_request* req);

// One round of the thread's work, as `work` asks; also what tests call.
struct MaintenanceWork;
void maintainTable(mappingsTable* table, vesk_request* req, const MaintenanceWork& work);
