// The entry points that a web server calls, and the one routing table that lives
// between them.
//
// A host is C and may be any web server: nothing is thrown out of these.
//
// Ownership: the table is made by veskinit and deleted by veskend; a stage uses the
// one that it found when it was called. The Init line's parameters stay the host's.
// Threads: veskinit and veskend on one thread, while no stage is running; the stages
// on any number at once. Failure: as NSAPI has it, by the result of a stage.
#pragma once

#include <nsapi.h>

struct mappingsTable;

// Null before veskinit and after veskend, and when veskinit had no memory for one.
// Read while veskend may write it: through the functions below.
extern mappingsTable* pMappingsTable;
[[nodiscard]] mappingsTable* getMappingsTable();
void setMappingsTable(mappingsTable* table);

#define VESK_ENTRY extern "C" [[gnu::visibility("default")]]

// Init: reads the options, makes the table, and has the host call veskend when it
// stops. REQ_PROCEED, whatever the options say.
VESK_ENTRY int veskinit(pblock* pb, Session* sn, Request* rq);

// ObjectType and Service: filter_stage.h and service_stage.h tell. In Init, where
// they have no request, both give REQ_ABORTED and the reason as "error".
VESK_ENTRY int veskfilter(pblock* pb, Session* sn, Request* rq);
VESK_ENTRY int veskservice(pblock* pb, Session* sn, Request* rq);

// Ends all waits for servers and deletes the table. `data` is not used.
VESK_ENTRY void veskend(void* data);
