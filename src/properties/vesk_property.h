// Pairs of text in insertion order, and the one text syntax of the system.
//
// A table holds at most kMaxProperties pairs; lookups scan from the front and
// compare exactly. Property text, from a file or from a server, has one syntax:
// "key=value" lines, '#' comments, a backslash that protects the byte behind it.
//
// Ownership: a table owns its pairs. All of it comes from permMalloc of a request
// and goes back through permFree of a request of the same kind.
// Threads: a table has no lock; its owner guards it.
// Failure: null or -1, with a log line where the function's comment says so.
#pragma once

#include "context/vesk_request.h"

// Columns elsewhere are parallel to a table's pairs and have the same size.
constexpr std::int32_t kMaxProperties = 8192;

// Both texts are owned by the table and never null.
struct property {
  char* key;
  char* value;
};

struct propertyTable {
  property entries[kMaxProperties];
  std::int32_t count;  // pairs from the start; what lies behind them is undefined
};
static_assert(std::is_trivial_v<propertyTable> &&
              std::is_standard_layout_v<propertyTable>);

// The table of a text, empty for an empty one; null when memory runs out, also for a
// single pair: half a set would look like a whole one to whoever acts on it. A pair
// that finds the table full is left out, with a log line.
[[nodiscard]] propertyTable* parseProperties(vesk_request* req, const char* text);

// The table of a file; null, with a log line, when it can't be opened or read,
// and silently when it is empty. Null, too, without memory, of which only the
// allocators tell. Blocks on the file.
[[nodiscard]] propertyTable* loadProperties(vesk_request* req, const char* path);

void freeProperties(vesk_request* req, propertyTable* table);  // null is accepted

// The first matching pair's value, borrowed, or null. A null table has none.
[[nodiscard]] const char* getPropertyValue(const propertyTable* table, const char* key);

// Sets the first pair of that key, or appends one, with copies of both texts:
// its index; -1 when the table is full (logged) or memory runs out, and then the
// table is unchanged.
[[nodiscard]] std::int32_t setProperty(vesk_request* req, propertyTable* table,
                                       const char* key, const char* value);

// The two halves of setProperty, for a caller that has looked the key up already: a
// new value for the pair at a valid index, and copies of both texts at the end, where
// no pair has that key yet. Results as those of setProperty.
[[nodiscard]] std::int32_t replaceValue(vesk_request* req, propertyTable* table,
                                        std::int32_t index, const char* value);
[[nodiscard]] std::int32_t addCopies(vesk_request* req, propertyTable* table,
                                     const char* key, const char* value);

// Appends a pair and takes over both texts: its index, or -1 with a log line when
// the table is full; then the texts stay the caller's.
[[nodiscard]] std::int32_t addProperty1(vesk_request* req, propertyTable* table,
                                        char* key, char* value);
// The same without a check: the caller knows that there is room.
std::int32_t addProperty(propertyTable* table, char* key, char* value);

// Removes the first pair of that key, whatever its value: the new count, or -1
// when setProperty fails.
std::int32_t removeProperty(vesk_request* req, propertyTable* table, const char* key,
                            const char* value);
// Removes the pair at a valid index: the new count; 0 for an empty table.
std::int32_t removePropertyByIndex(vesk_request* req, propertyTable* table,
                                   std::int32_t index);

// The same on the plain heap, silent, for callers outside any request.
[[nodiscard]] propertyTable* loadProperties1(const char* path);
[[nodiscard]] propertyTable* parseProperties1(const char* text);
void freeProperties1(propertyTable* table);
[[nodiscard]] std::int32_t setProperty1(propertyTable* table, const char* key,
                                        const char* value);
