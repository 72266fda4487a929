// The options of the Init line.
//
// Ownership: texts are the host's, of a parameter block that it keeps for the
// life of the process. Threads: the start-up thread, before the first request.
// Failure: none; a value that makes no sense is taken as far as it goes, and one
// out of range is moved to the nearest, with a log line.
// Units: the options have seconds, soTimeouts milliseconds.
#pragma once

#include <nsapi.h>

#include <cstdint>

// What is passed on when the table is made.
struct TableOptions {
  std::uint32_t ignoreSuffix;   // 1 or 0
  const char* serverStore;      // path, or null
  const char* bootstrap;        // "<ip>:<port>", or null
  std::uint32_t retryInterval;  // seconds; 0: the servers' own
};

// Sets veskNSAPIVerbose, veskEnabledTraceFlags and veskMetrics. Logs nothing: the
// record that would is made with these settings.
void readTraceOptions(pblock* pb);

// Sets veskUseApiAlloc and soTimeouts, and fills the options for the table.
// Traces each through globalRequest.
void readServiceOptions(pblock* pb, TableOptions* options);

// Sets veskGuards, also in globalRequest, which was made before them, and the limits that
// belong to guards. A word that names no guard gets a log line; the others count.
void readGuardOptions(pblock* pb);

// Switches event lines on or off. The host's log must be ready for lines.
void readEventOption(pblock* pb);

// The descriptor of memory that all processes of the web server share, which the host
// itself adds to the line where it has such; -1 without one.
[[nodiscard]] int readSharedMemory(pblock* pb);

// Sets errorUrl, and traces it.
void readErrorUrl(pblock* pb);
