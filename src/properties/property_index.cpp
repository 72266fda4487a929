#include "properties/property_index.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "context/text.h"

constexpr std::int16_t kEnd = -1;

static std::uint32_t bucketOf(const char* key) {
  return hashText(key) & (kMaxProperties - 1);
}

static const char* keyAt(const propertyIndex* index, std::int32_t position) {
  return index->table->entries[position].key;
}

// In front of its chain: its key is new, so no other pair has to be met first.
void enterIndexed(propertyIndex* index, std::int32_t position) {
  std::int16_t* head = &index->heads[bucketOf(keyAt(index, position))];
  index->next[position] = *head;
  *head = static_cast<std::int16_t>(position);
}

// From the last pair to the first, so that the first of equal keys is the first that a
// search meets: a server may send a key twice.
void indexProperties(propertyIndex* index, const propertyTable* table) {
  index->table = table;
  std::fill(std::begin(index->heads), std::end(index->heads), kEnd);
  for (std::int32_t i = table->count - 1; i >= 0; --i) enterIndexed(index, i);
}

// The keys themselves decide: the index holds positions only, and no copy of a hash that
// a renamed key would leave wrong.
std::int32_t findIndexed(const propertyIndex* index, const char* key) {
  std::int16_t at = index->heads[bucketOf(key)];
  while (at != kEnd && std::strcmp(keyAt(index, at), key) != 0) at = index->next[at];
  return at;
}

void leaveIndexed(propertyIndex* index, std::int32_t position) {
  std::int16_t* link = &index->heads[bucketOf(keyAt(index, position))];
  while (*link != position) link = &index->next[*link];
  *link = index->next[position];
}
