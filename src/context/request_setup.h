// What makes a record usable: the defaults that need no host.
//
// This stands above the record because it names every default operation, each of
// which has a file of its own below.
//
// Ownership: the record is the caller's; nothing is allocated. Threads: the caller's.
// Failure: none.
#pragma once

#include "context/vesk_request.h"

// Clears the record and installs every default that needs no host. The six host
// operations stay null and logging stays silent.
void init_vesk_request(vesk_request* req);

// Whether a trace line goes anywhere: what costs more than a call needn't be made out
// for nobody.
[[nodiscard]] bool isTraced(const vesk_request* req);

// Clears the record and installs the plain-heap allocators, a silent log and a
// silent trace: enough for the property functions. In such a record traceE and
// all other operations are null.
void init_allocators(vesk_request* req);
