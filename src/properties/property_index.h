// Where each key of a table stands: a look-up by hash in place of a walk.
//
// A table of thousands that is compared with another, pair by pair, costs half a
// second by walks and a millisecond by this. It is made for one such job, mostly on
// the stack (32 KiB), and dropped behind it: nothing keeps it in step with the table
// but the calls below.
//
// Ownership: no memory of its own; the table is borrowed and must outlive it.
// Threads: as the table's. Failure: none. Keys that are made to collide cost what a
// walk would.
#pragma once

#include "properties/vesk_property.h"

struct propertyIndex {
  const propertyTable* table;
  // Positions of pairs, or -1. Pairs whose keys share a bucket form a chain, and those
  // that were there when the index was made stand in it in the order of the table.
  std::int16_t heads[kMaxProperties];  // by hash
  std::int16_t next[kMaxProperties];   // by position
};
static_assert(std::is_trivial_v<propertyIndex> && kMaxProperties <= INT16_MAX);
static_assert((kMaxProperties & (kMaxProperties - 1)) == 0);  // a hash is cut by a mask

// Enters all pairs of a table.
void indexProperties(propertyIndex* index, const propertyTable* table);

// The position of the first pair of that key, or -1.
[[nodiscard]] std::int32_t findIndexed(const propertyIndex* index, const char* key);

// Enters the pair at a position. REQUIRES: no other pair has its key.
void enterIndexed(propertyIndex* index, std::int32_t position);
// Takes out the pair at a position that is entered; call it before its key changes.
void leaveIndexed(propertyIndex* index, std::int32_t position);

// A set of positions.
struct propertyMarks {
  std::uint64_t words[kMaxProperties / 64];
};

inline void markProperty(propertyMarks* marks, std::int32_t position) {
  marks->words[position / 64] |= std::uint64_t{1} << (position % 64);
}

[[nodiscard]] inline bool isMarked(const propertyMarks& marks, std::int32_t position) {
  return (marks.words[position / 64] >> (position % 64) & 1) != 0;
}
