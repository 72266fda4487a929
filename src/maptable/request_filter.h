// Which mapping a request belongs to, and the pass that keeps the servers fresh.
//
// filterRequest is the connector's clock: where no thread of its own runs, each call
// first revives and refreshes every known server. Then it walks the mappings in order and
// takes the first that fits.
//
// Ownership: the request's texts stay its own; what is copied is freed here.
// Threads: any; tableMutex is taken by what takes a table, and held across the
// network traffic of a refresh made here.
// Failure: none; a server that can't be reached doesn't change the answer.
#pragma once

#include "maptable/vesk_maptable_impl.h"
#include "patterns/pattern_match.h"

// Index of the mapping that a request belongs to, or -1; writes nothing into the
// request. With `honourIgnoreSuffix` 0 the table's ignoreSuffix plays no part. A
// request without a `uri` belongs to none. May block. Takes tableMutex.
[[nodiscard]] std::int32_t filterRequest(mappingsTable* table, vesk_request* req,
                                         std::uint32_t honourIgnoreSuffix);

// Stores the option and gives the old value. Takes tableMutex.
std::uint32_t ignoreSuffixMap(mappingsTable* table, vesk_request* req,
                              std::uint32_t value);

// A copy of what stands before the first ';', from the request's malloc; null
// when there is no ';' or no memory.
[[nodiscard]] char* removePathParms(vesk_request* req, const char* text);

// What patterns are tested against, but for ignoreSuffix. The views point at the
// request's texts, at `stripped`, which is what removePathParms makes of pathOf, and at
// `host`; both may be null.
[[nodiscard]] MatchSubject makeSubject(const vesk_request* req, const char* stripped,
                                       const char* host);

// The path that counts for a request: never null.
[[nodiscard]] const char* pathOf(const vesk_request* req);
