#include "proxy/mapping_order.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "context/memory.h"
#include "context/text.h"
#include "patterns/uri_pattern.h"
#include "properties/property_index.h"

// Entries that are put in order together: few enough for the stack, and enough that
// the walks over those before them don't count.
constexpr std::int32_t kChunk = 256;

// One table on its way into matching order.
struct Sorting {
  vesk_request* req;
  propertyTable* table;
  propertyIndex index;
  // Entries that are to go, since another one has taken over their value. Until then
  // they are found like all others: the value of one that waits may be replaced.
  propertyMarks doubles;
};

// An entry with its place in the order, which takes a walk over the text to find.
struct RankedEntry {
  property pair;
  std::uint64_t rank;
};

std::int32_t longerThan(const property* first, const property* second) {
  return patternRank(first->key) > patternRank(second->key) ? 1 : 0;
}

// The '/' before the first '*' of a pattern, or null when there is none. Servers write
// '/path/*' and mean '/path' as well, which the rest of the connector says without it.
static const char* slashBeforeStar(const char* pattern) {
  const char* star = std::strchr(pattern, '*');
  if (!star || star == pattern || star[-1] != '/') return nullptr;
  return star - 1;
}

// A copy of a pattern without the character at `left`, from permMalloc, or null.
static char* copyWithout(vesk_request* req, const char* pattern, const char* left) {
  const auto size = static_cast<std::size_t>(textLength(pattern));  // one less, and a NUL
  auto* copy = static_cast<char*>(newPermBlock(req, static_cast<std::int64_t>(size)));
  if (!copy) return nullptr;
  const auto before = static_cast<std::size_t>(left - pattern);
  std::memcpy(copy, pattern, before);
  std::memcpy(copy + before, left + 1, size - before);
  return copy;
}

// Rewrites one entry. False when memory runs out: without its '/' the pattern matches
// what its server means, with it next to nothing, so the set is of no use then.
static bool convertEntry(Sorting* sorting, std::int32_t at) {
  vesk_request* req = sorting->req;
  property* entry = &sorting->table->entries[at];
  const char* slash = slashBeforeStar(entry->key);
  if (!slash) return true;
  char* newKey = copyWithout(req, entry->key, slash);
  if (!newKey) return false;

  req->trace(req, "mapping converted from %s to %s=%s", entry->key, newKey, entry->value);
  const std::int32_t known = findIndexed(&sorting->index, newKey);
  if (known < 0) {
    leaveIndexed(&sorting->index, at);
    req->permFree(req, entry->key);
    entry->key = newKey;
    enterIndexed(&sorting->index, at);
    return true;
  }
  req->permFree(req, newKey);
  markProperty(&sorting->doubles, at);
  return replaceValue(req, sorting->table, known, entry->value) >= 0;
}

static bool convertEntries(Sorting* sorting) {
  for (std::int32_t i = 0; i < sorting->table->count; ++i)
    if (!convertEntry(sorting, i)) return false;
  return true;
}

// In one pass behind all conversions: positions stay valid meanwhile, and each removal
// by itself would move half of the table.
static void dropDoubles(const Sorting& sorting) {
  vesk_request* req = sorting.req;
  property* entries = sorting.table->entries;
  std::int32_t kept = 0;
  for (std::int32_t i = 0; i < sorting.table->count; ++i) {
    if (!isMarked(sorting.doubles, i)) {
      entries[kept++] = entries[i];
      continue;
    }
    req->trace(req, "removed mapping %s=%s", entries[i].key, entries[i].value);
    req->permFree(req, entries[i].key);
    req->permFree(req, entries[i].value);
  }
  sorting.table->count = kept;
}

// Takes the entries behind the sorted ones, in order among themselves. Equals stay as
// the server sent them: the first of two that both match is the one it has put first.
static void takeChunk(const propertyTable* table, std::int32_t start, RankedEntry* chunk,
                      std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i) {
    const property pair = table->entries[start + i];
    const RankedEntry entry = {.pair = pair, .rank = patternRank(pair.key)};
    std::int32_t at = i;
    for (; at > 0 && chunk[at - 1].rank < entry.rank; --at) chunk[at] = chunk[at - 1];
    chunk[at] = entry;
  }
}

// Merges them into the sorted ones, from the back: what is equal stays behind.
static void mergeChunk(propertyTable* table, std::int32_t sorted,
                       const RankedEntry* chunk, std::int32_t count) {
  property* entries = table->entries;
  while (count > 0) {
    property* to = &entries[sorted + count - 1];
    const RankedEntry& last = chunk[count - 1];
    if (sorted > 0 && patternRank(entries[sorted - 1].key) < last.rank) {
      *to = entries[--sorted];
    } else {
      *to = last.pair;
      --count;
    }
  }
}

// A merge sort would need room for a second table, which a refresh may not get.
static void sortEntries(propertyTable* table) {
  RankedEntry chunk[kChunk];
  for (std::int32_t sorted = 0; sorted < table->count;) {
    const std::int32_t count = std::min(kChunk, table->count - sorted);
    takeChunk(table, sorted, chunk, count);
    mergeChunk(table, sorted, chunk, count);
    sorted += count;
  }
}

std::int32_t sortMappings(vesk_request* req, propertyTable* table) {
  Sorting sorting;
  sorting.req = req;
  sorting.table = table;
  sorting.doubles = {};
  indexProperties(&sorting.index, table);
  if (!convertEntries(&sorting)) {
    req->lastError = ENOBUFS;
    return -1;
  }
  dropDoubles(sorting);
  sortEntries(table);
  return 0;
}
