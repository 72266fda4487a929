// Log lines through the host: the log operations of a record.
//
// A line carries the record's logPrefix as the function name, and `loglevel` as
// the degree. A text of more than 1020 characters is cut.
//
// Ownership: the caller keeps all texts. Threads: any; each call formats in its own
// frame and allocates nothing. No lock: what order lines have is the host's.
// Failure: none that a caller could see; a line may be missing.
#pragma once

#include "context/vesk_request.h"

// The degree of every line, in the host's numbers. Written by veskinit and
// veskend, read by any thread: through setLogLevel.
extern std::int32_t loglevel;
void setLogLevel(std::int32_t level);

[[gnu::format(printf, 2, 3)]] void WriteToLog(vesk_request* req, const char* format, ...);

// Writes only when `flags` and veskEnabledTraceFlags have a bit in common.
[[gnu::format(printf, 3, 4)]] void WriteToLogE(vesk_request* req, std::uint64_t flags,
                                               const char* format, ...);

// Shows the host's variables and response headers under a label, if trace flag 4
// is set. The record must have its host request.
void dumpHeaders(vesk_request* req, const char* label);
