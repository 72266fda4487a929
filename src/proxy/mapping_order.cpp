#include "proxy/mapping_order.h"

#include <cstdint>
#include <cstring>

#include "patterns/uri_pattern.h"

// The entries to remove, by their index before any removal. References would not
// do: the value of an entry that waits here may still be replaced and freed.
struct RemovalList {
  std::int32_t count;
  std::int16_t indexes[kMaxProperties];
};
static_assert(kMaxProperties <= INT16_MAX);

std::int32_t longerThan(const property* first, const property* second) {
  return patternRank(first->key) > patternRank(second->key) ? 1 : 0;
}

// The '/' before the first '*' of a pattern, or null when there is none.
static const char* slashBeforeStar(const char* pattern) {
  const char* star = std::strchr(pattern, '*');
  if (!star || star == pattern || star[-1] != '/') return nullptr;
  return star - 1;
}

// A copy of a pattern without the character at `left`, from permMalloc, or null.
static char* copyWithout(vesk_request* req, const char* pattern, const char* left) {
  const std::size_t size = std::strlen(pattern);  // one less, and a NUL
  if (size > static_cast<std::size_t>(INT32_MAX)) return nullptr;
  auto* copy = static_cast<char*>(req->permMalloc(req, static_cast<std::int32_t>(size)));
  if (!copy) return nullptr;
  const auto before = static_cast<std::size_t>(left - pattern);
  std::memcpy(copy, pattern, before);
  std::memcpy(copy + before, left + 1, size - before);
  return copy;
}

// Rewrites one entry. True when it has become double: then another entry has
// taken over its value, and this one is to be removed. Without memory the entry
// stays as it is, which is a pattern in its own right.
static bool convertEntry(vesk_request* req, propertyTable* table, property* entry) {
  const char* slash = slashBeforeStar(entry->key);
  if (!slash) return false;
  char* newKey = copyWithout(req, entry->key, slash);
  if (!newKey) return false;

  req->trace(req, "mapping converted from %s to %s=%s", entry->key, newKey, entry->value);
  if (!getPropertyValue(table, newKey)) {
    req->permFree(req, entry->key);
    entry->key = newKey;
    return false;
  }
  const bool handedOver = setProperty(req, table, newKey, entry->value) >= 0;
  req->permFree(req, newKey);
  return handedOver;
}

static void convertEntries(vesk_request* req, propertyTable* table,
                           RemovalList* removals) {
  for (std::int32_t i = 0; i < table->count; ++i)
    if (convertEntry(req, table, &table->entries[i]))
      removals->indexes[removals->count++] = static_cast<std::int16_t>(i);
}

static void removeEntries(vesk_request* req, propertyTable* table,
                          const RemovalList& removals) {
  for (std::int32_t i = 0; i < removals.count; ++i) {
    const std::int32_t index = removals.indexes[i] - i;  // i entries are gone
    const property& entry = table->entries[index];
    req->trace(req, "removed mapping %s=%s", entry.key, entry.value);
    (void)removePropertyByIndex(req, table, index);  // the new count tells nothing
  }
}

// The place of an entry among the sorted ones before it: behind all that it is
// not longer than, so that equal ones keep their order.
static std::int32_t placeOf(const propertyTable* table, const property& entry,
                            std::int32_t sorted) {
  std::int32_t low = 0;
  std::int32_t high = sorted;
  while (low < high) {
    const std::int32_t middle = low + (high - low) / 2;
    if (longerThan(&entry, &table->entries[middle])) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return low;
}

// Insertion sort; the place is searched by halves, since a comparison reads both
// patterns to their end.
static void sortEntries(propertyTable* table) {
  for (std::int32_t i = 1; i < table->count; ++i) {
    const property entry = table->entries[i];
    const std::int32_t place = placeOf(table, entry, i);
    std::memmove(&table->entries[place + 1], &table->entries[place],
                 static_cast<std::size_t>(i - place) * sizeof(property));
    table->entries[place] = entry;
  }
}

void sortMappings(vesk_request* req, propertyTable* table) {
  RemovalList removals;
  removals.count = 0;
  convertEntries(req, table, &removals);
  removeEntries(req, table, removals);
  sortEntries(table);
}
