// What a URI pattern consists of, and which of two patterns is tried first.
//
//   //host/path/prefix*.tail
//     `--' `----------' `---'      host part, prefix, tail; a tail that ends in '*'
//         `-----------------'      may stand anywhere ("contains"); path part
//
// A pattern is taken apart once, when it enters a table, and not at every request:
// the record is small and lies in one run with its neighbours, so that a walk over
// thousands seldom has to look at a text.
//
// Ownership: the text stays its owner's and must outlive the record. Threads: any;
// all are pure functions. Failure: none, every text is a pattern. Units: bytes.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

struct uriPattern {
  const char* text;           // the whole pattern, ended by a NUL
  std::uint64_t rank;         // see patternRank
  std::int32_t pathStart;     // offset of the path part; 0 without a host part
  std::int32_t prefixLength;  // of the path part, up to its first '*' or its end
  std::int32_t tailLength;    // behind that '*', less the closing '*' of `contains`
  std::uint8_t hasHost;       // 1: it begins with "//"
  std::uint8_t contains;      // 1: there is a closing '*'
  std::uint8_t isSuffix;      // 1: the path part begins with "*."
  char prefixEnd;             // last byte of the prefix; NUL when that is empty
};
static_assert(std::is_trivial_v<uriPattern> && std::is_standard_layout_v<uriPattern>);
// Two lie in one line of the processor's cache.
static_assert(sizeof(void*) != 8 || sizeof(uriPattern) == 32);

[[nodiscard]] uriPattern splitPattern(const char* text);

// The parts of a pattern; the host part without its "//", empty without one.
[[nodiscard]] std::string_view hostOf(const uriPattern& pattern);
[[nodiscard]] std::string_view prefixOf(const uriPattern& pattern);
[[nodiscard]] std::string_view tailOf(const uriPattern& pattern);

// Characters from the start of a pattern's path part to its first '*' or its end.
[[nodiscard]] std::int32_t prefixlen(const char* pattern);
// Characters behind the first '*' of a pattern; 0 when it has none.
[[nodiscard]] std::int32_t extlen(const char* pattern);

// The order of patterns as one number: the greater one is tried first. From the top
// bit down: has a host part (1 bit), prefixlen (31 bits), extlen (32 bits).
[[nodiscard]] std::uint64_t patternRank(const char* pattern);
