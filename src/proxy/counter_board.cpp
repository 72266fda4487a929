#include "proxy/counter_board.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

// Says what a board looks like, so that a process of another build leaves it alone.
constexpr std::uint64_t kLayout = 0x7665736B00010000 + sizeof(counterBoard) / 8;

constexpr std::uint32_t kNamed = 2;

static counterBoard* theBoard;
static bool boardShared;

template <typename Number>
static Number load(const Number& field) {
  return std::atomic_ref(const_cast<Number&>(field)).load(std::memory_order_relaxed);
}

static void* mapMemory(int descriptor) {
  const int flags = descriptor < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED;
  void* memory =
      mmap(nullptr, sizeof(counterBoard), PROT_READ | PROT_WRITE, flags, descriptor, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

// Memory that is too small would end the process at the first touch behind its end.
static counterBoard* mapShared(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0 ||
      status.st_size < static_cast<off_t>(sizeof(counterBoard)))
    return nullptr;
  auto* board = static_cast<counterBoard*>(mapMemory(descriptor));
  if (!board) return nullptr;
  std::uint64_t seen = 0;
  if (std::atomic_ref(board->layout).compare_exchange_strong(seen, kLayout) ||
      seen == kLayout)
    return board;
  (void)munmap(board, sizeof *board);
  return nullptr;
}

// ESRCH alone says that it is gone: of another user's process one only hears less.
static bool isAlive(std::int64_t pid) {
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

// A process that was killed has left its place: the next takes it.
static void enterProcess(counterBoard* board, std::int64_t now) {
  const std::int64_t own = getpid();
  for (boardProcess& process : board->processes) {
    std::int64_t seen = load(process.pid);
    if (seen != 0 && seen != own && isAlive(seen)) continue;
    if (!std::atomic_ref(process.pid).compare_exchange_strong(seen, own)) continue;
    std::atomic_ref(process.started).store(now, std::memory_order_relaxed);
    return;
  }
}

void openBoard(vesk_request* req, int sharedMemory) {
  if (theBoard) return;
  counterBoard* board = sharedMemory >= 0 ? mapShared(sharedMemory) : nullptr;
  boardShared = board != nullptr;
  if (sharedMemory >= 0 && !board)
    req->log(req, "shared memory can't be used: each process counts for itself");
  if (!board) board = static_cast<counterBoard*>(mapMemory(-1));
  if (!board) return;
  const std::int64_t now = req->now(req);
  std::int64_t seen = 0;
  (void)std::atomic_ref(board->started).compare_exchange_strong(seen, now);
  enterProcess(board, now);
  theBoard = board;
}

void closeBoard() {
  if (!theBoard) return;
  const std::int64_t own = getpid();
  for (boardProcess& process : theBoard->processes) {
    std::int64_t seen = own;
    (void)std::atomic_ref(process.pid).compare_exchange_strong(seen, 0);
  }
  (void)munmap(theBoard, sizeof *theBoard);
  theBoard = nullptr;
}

counterBoard* getBoard() {
  return theBoard;
}

bool isBoardShared() {
  return boardShared;
}

static bool takePlace(boardServer* server, const char* name) {
  std::uint32_t seen = 0;
  const std::atomic_ref claim(server->claim);
  if (load(server->claim) != 0 || !claim.compare_exchange_strong(seen, 1)) return false;
  const std::size_t length = strnlen(name, kBoardNameSize - 1);
  std::memcpy(server->name, name, length);
  claim.store(kNamed, std::memory_order_release);
  return true;
}

// All processes come to the same free place, and who is late has to know whose it is by
// now: else one server would have two. A process that died while it named one leaves
// that without a name for good, so nobody waits for long.
static void awaitName(const boardServer& server) {
  constexpr std::int32_t kMostTurns = 200;
  for (std::int32_t i = 0; i < kMostTurns && load(server.claim) == 1; ++i)
    (void)sched_yield();
}

static bool hasName(boardServer* server, const char* name) {
  return std::atomic_ref(server->claim).load(std::memory_order_acquire) == kNamed &&
         std::strncmp(server->name, name, kBoardNameSize - 1) == 0;
}

boardServer* findBoardServer(vesk_request* req, const char* name) {
  if (!theBoard) return nullptr;
  for (boardServer& server : theBoard->servers) {
    if (takePlace(&server, name)) return &server;
    awaitName(server);
    if (hasName(&server, name)) return &server;
  }
  req->log(req, "%s is one server too many to be counted on the status page", name);
  return nullptr;
}

boardServer* knownBoardServer(const char* name) {
  if (!theBoard) return nullptr;
  for (boardServer& server : theBoard->servers)
    if (hasName(&server, name)) return &server;
  return nullptr;
}

// FNV-1a.
static std::uint64_t hashOf(const char* pattern) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (; *pattern != '\0'; ++pattern)
    hash = (hash ^ static_cast<std::uint8_t>(*pattern)) * 0x100000001B3;
  return hash == 0 ? 1 : hash;
}

static bool takeMapping(boardMapping* mapping, std::uint64_t key) {
  std::uint64_t seen = load(mapping->key);
  if (seen == 0 && std::atomic_ref(mapping->key).compare_exchange_strong(seen, key))
    return true;
  return seen == key;
}

// Patterns with one hash share a count: rare, and only told. A long search would hold
// the table up, and finds nothing on a board that is nearly full.
std::int64_t* findBoardMapping(const char* pattern) {
  constexpr std::uint64_t kMostLooks = 64;
  if (!theBoard) return nullptr;
  const std::uint64_t key = hashOf(pattern);
  for (std::uint64_t i = 0; i < kMostLooks; ++i) {
    boardMapping& mapping = theBoard->mappings[(key + i) % kBoardMappings];
    if (takeMapping(&mapping, key)) return &mapping.hits;
  }
  return nullptr;
}

std::int32_t countProcesses(counterBoard* board) {
  std::int32_t count = 0;
  for (const boardProcess& process : board->processes) {
    const std::int64_t pid = load(process.pid);
    if (pid != 0 && isAlive(pid)) ++count;
  }
  return count;
}

// Of two processes that make it at one moment the first wins, for each half.
static bool ensureRandom(std::uint64_t* half) {
  if (load(*half) != 0) return true;
  std::uint64_t random = 0;
  if (getentropy(&random, sizeof random) != 0) return false;
  std::uint64_t seen = 0;
  (void)std::atomic_ref(*half).compare_exchange_strong(seen, random | 1);
  return true;
}

bool getBoardToken(counterBoard* board, char* token) {
  if (!ensureRandom(&board->token[0]) || !ensureRandom(&board->token[1])) return false;
  (void)std::snprintf(token, kBoardTokenSize, "%016llx%016llx",
                      static_cast<unsigned long long>(load(board->token[0])),
                      static_cast<unsigned long long>(load(board->token[1])));
  return true;
}

// The count is never below the flags: a flag alone would drain nobody.
bool setDrained(counterBoard* board, boardServer* server, bool drained) {
  const std::atomic_ref drains(board->drains);
  std::uint32_t seen = drained ? 0 : 1;
  if (drained) drains.fetch_add(1);
  const bool changed =
      std::atomic_ref(server->drained).compare_exchange_strong(seen, drained ? 1 : 0);
  if (changed != drained) drains.fetch_sub(1);
  return changed;
}

bool isDrained(const boardServer* server) {
  return server && load(server->drained) != 0;
}

bool anyDrained() {
  return theBoard && load(theBoard->drains) > 0;
}
