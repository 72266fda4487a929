// Where counts lie that the status page shows, and what its actions set: one board for
// all processes of the web server where the host gives memory that they share, else one
// of the process's own.
//
// A server has one place on the board, by its name, and a mapping one by its pattern.
// Places are taken and never given back: so counts of all processes add up, go on when
// one ends, and outlive a reload. A server beyond the board's room has no place, and a
// line in the log tells; a mapping beyond it has none.
//
// Ownership: the board is the process's own mapping of that memory, from openBoard to
// closeBoard; places are the board's.
// Threads: any, in any process; no lock, all fields atomically.
// Failure: without memory there is no board, no server has a place, and nothing is
// counted.
// Hostile input: what lies in shared memory is trusted as far as the processes are that
// write it; a board of another layout is left alone.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <type_traits>

#include "context/vesk_request.h"
#include "proxy/server_counters.h"

constexpr std::int32_t kBoardServers = 512;
constexpr std::int32_t kBoardMappings =
    16384;  // twice of what a table has, to be found fast
constexpr std::int32_t kBoardProcesses = 256;
constexpr std::int32_t kBoardNameSize = 64;

constexpr std::size_t kCacheLine = 64;

// A server's place.
struct boardServer {
  std::uint32_t claim;    // 0 free, 1 being named, 2 named
  std::uint32_t drained;  // 1: only requests of its sessions go there
  char name[kBoardNameSize];
  serverCounters counters;
};

struct boardMapping {
  std::uint64_t key;  // a hash of the pattern; 0: free
  std::int64_t hits;
};

struct boardProcess {
  std::int64_t pid;      // 0: free
  std::int64_t started;  // seconds since the epoch
};

struct counterBoard {
  std::uint64_t layout;    // 0 until the first process has come
  std::uint64_t token[2];  // random, made by the first that asks; 0: not yet
  std::int64_t started;    // seconds since the epoch
  // Servers that are drained, or a few more where a process has died in that. Each
  // request reads it, so it keeps away from what each request writes.
  alignas(kCacheLine) std::int64_t drains;
  alignas(kCacheLine) std::int64_t requests[kOutcomeKinds];  // by how they ended
  std::int64_t lockWaits;  // requests that found the table taken
  std::int64_t lockMicros;
  boardProcess processes[kBoardProcesses];
  boardServer servers[kBoardServers];
  boardMapping mappings[kBoardMappings];
};
static_assert(std::is_trivial_v<counterBoard> && std::is_standard_layout_v<counterBoard>);

// Makes the board, in the memory behind a descriptor that stays the caller's, or of its
// own where that is negative. Called before the first request; memory that can't be
// shared is told in the log, and stands for none.
void openBoard(vesk_request* req, int sharedMemory);
// Takes the process off the board. No place may be used any more.
void closeBoard();

// The board, or null.
[[nodiscard]] counterBoard* getBoard();
// Whether other processes see it too.
[[nodiscard]] bool isBoardShared();

// The place of a server, taken now if it has none; or null.
[[nodiscard]] boardServer* findBoardServer(vesk_request* req, const char* name);
// The same, but a server that has none gets none.
[[nodiscard]] boardServer* knownBoardServer(const char* name);
// The count of a mapping's requests; or null.
[[nodiscard]] std::int64_t* findBoardMapping(const char* pattern);

// Processes on the board that live.
[[nodiscard]] std::int32_t countProcesses(counterBoard* board);

// A text that nobody else can guess, of kBoardTokenSize with its NUL: false without
// random numbers.
constexpr std::int32_t kBoardTokenSize = 33;
[[nodiscard]] bool getBoardToken(counterBoard* board, char* token);

// Drains a server or puts it back: whether that changed anything.
bool setDrained(counterBoard* board, boardServer* server, bool drained);
[[nodiscard]] bool isDrained(const boardServer* server);  // false for null
// Whether any server is drained: one relaxed load.
[[nodiscard]] bool anyDrained();
