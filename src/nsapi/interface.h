// What makes a request of a web server's: the record filled for this host, the
// process-wide state of the adapter, and the host's critical sections as locks.
//
// Ownership: a record refers to the host's session, request and texts for the
// length of one stage call and owns none of them. The table belongs to veskinit
// and veskend.
// Threads: any; a record belongs to its thread. Settings are written by veskinit
// before the first request.
// Failure: a record can always be built.
#pragma once

#include <nsapi.h>

#include "context/vesk_request.h"

struct mappingsTable;

// The one routing table: null before veskinit and after veskend. Read while
// veskend may write it: through the functions below.
extern mappingsTable* pMappingsTable;
[[nodiscard]] mappingsTable* getMappingsTable();
void setMappingsTable(mappingsTable* table);

// Fills a record. All three host objects may be null, as for globalRequest.
void init_nsapi_request(vesk_request* req, pblock* pb, Session* sn, Request* rq);

// Makes the host's critical sections the connector's locks. Call it before the
// first lock is made.
void installHostLocks();

// The host's objects of a record.
[[nodiscard]] inline Session* sessionOf(const vesk_request* req) {
  return static_cast<Session*>(req->sn);
}
[[nodiscard]] inline Request* requestOf(const vesk_request* req) {
  return static_cast<Request*>(req->rq);
}

// Whether a content type marks a request for the connector.
[[nodiscard]] bool isInternalType(const char* type);

// Removes a parameter and releases it; nothing happens where there is none.
void dropParameter(const char* name, pblock* block);
