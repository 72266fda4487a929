#include "maptable/mapping_columns.h"

#include <algorithm>
#include <cerrno>

#include "context/memory.h"
#include "proxy/counter_board.h"

// Mappings that are merged in one walk: 4 KiB of stack.
constexpr std::int32_t kChunk = 64;

// One mapping in all columns, while it is moved.
struct MappingRow {
  property pair;
  proxyList* list;
  mappingBalance* balance;
  uriPattern pattern;
};

// Whoever moves a mapping moves it by these two: a column that stayed behind would give
// requests the servers of another pattern.
static MappingRow rowAt(const mappingsTable* table, std::int32_t index) {
  return {.pair = table->mappings->entries[index],
          .list = table->mappingProxies[index],
          .balance = table->mappingBalances[index],
          .pattern = table->patterns[index]};
}

static void putRow(mappingsTable* table, std::int32_t index, const MappingRow& row) {
  table->mappings->entries[index] = row.pair;
  table->mappingProxies[index] = row.list;
  table->mappingBalances[index] = row.balance;
  table->patterns[index] = row.pattern;
}

// What addProxy and updateProxy do differently, the cursor and anyActive, is theirs.
static void fillBlocks(proxyList* list, mappingBalance* balance, veskProxy* proxy) {
  list->proxies[0] = proxy;
  list->active[0] = 1;
  list->count = 1;
  balance->algorithm = proxy->balance->algorithm;
  balance->sticky = proxy->balance->sticky;
  balance->slotsStale = 1;
}

std::int32_t appendMapping(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                           const property& pair) {
  auto* list = static_cast<proxyList*>(newPermZeroed(req, sizeof(proxyList)));
  auto* balance =
      static_cast<mappingBalance*>(newPermZeroed(req, sizeof(mappingBalance)));
  // The pair comes last: it is what makes the mapping exist.
  const std::int32_t index =
      list && balance ? addCopies(req, table->mappings, pair.key, pair.value) : -1;
  if (index < 0) {
    freePerm(req, list);
    freePerm(req, balance);
    req->lastError = ENOBUFS;
    return -1;
  }
  fillBlocks(list, balance, proxy);
  balance->hits = findBoardMapping(pair.key);
  putRow(table, index,
         {.pair = table->mappings->entries[index],
          .list = list,
          .balance = balance,
          .pattern = splitPattern(table->mappings->entries[index].key)});
  return index;
}

// The columns end with a null behind the last mapping: freeing goes by lastMapping, which
// is 0 for an empty table, too.
void takeBackMappings(mappingsTable* table, vesk_request* req, std::int32_t first) {
  while (table->mappings->count > first) {
    const std::int32_t last = table->mappings->count - 1;
    (void)removePropertyByIndex(req, table->mappings, last);
    req->permFree(req, table->mappingProxies[last]);
    req->permFree(req, table->mappingBalances[last]);
    table->mappingProxies[last] = nullptr;
    table->mappingBalances[last] = nullptr;
  }
}

// Takes some of the mappings from `start` on, in order among themselves: a server sends
// its own in order, so there is mostly nothing to move here.
static void takeChunk(const mappingsTable* table, std::int32_t start, MappingRow* chunk,
                      std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i) {
    const MappingRow row = rowAt(table, start + i);
    std::int32_t at = i;
    for (; at > 0 && chunk[at - 1].pattern.rank < row.pattern.rank; --at)
      chunk[at] = chunk[at - 1];
    chunk[at] = row;
  }
}

// Merges a chunk into what stands before it, from the back. What stands there may be
// out of order, at the end of an updated table: then a mapping that is moved alone stops
// at the first that it doesn't beat. Those of a chunk stop at the same places, since
// all that the shorter ones have passed is shorter than the longer ones as well.
static void mergeChunk(mappingsTable* table, std::int32_t before, const MappingRow* chunk,
                       std::int32_t count) {
  while (count > 0) {
    const std::int32_t to = before + count - 1;
    const MappingRow& last = chunk[count - 1];
    if (before > 0 && last.pattern.rank > table->patterns[before - 1].rank) {
      putRow(table, to, rowAt(table, --before));
    } else {
      putRow(table, to, last);
      --count;
    }
  }
}

// In chunks, because one walk over thousands of mappings for each that is new is what
// made a join of 8192 take a third of a second under the lock.
void mergeNewMapping(mappingsTable* table, std::int32_t first) {
  MappingRow chunk[kChunk];
  while (first < table->mappings->count) {
    const std::int32_t count = std::min(kChunk, table->mappings->count - first);
    takeChunk(table, first, chunk, count);
    mergeChunk(table, first, chunk, count);
    first += count;
  }
}
