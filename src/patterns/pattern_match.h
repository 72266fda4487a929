// Whether a request belongs to a URI pattern, and if not, why.
//
// Ownership: a subject's views point at texts of the caller. Threads: any; all are
// pure functions. Failure: none.
#pragma once

#include <span>

#include "patterns/uri_pattern.h"

// What of a request the patterns are tested against.
struct MatchSubject {
  std::string_view uri;
  std::string_view strippedPath;  // the path without path parameters
  bool hadParameters;             // the path holds a ';'
  bool hasHost;
  std::string_view host;  // value of the host header, port included
  bool ignoreSuffix;      // "*.ext" patterns are passed over
};

enum class PatternMatch : std::uint8_t {
  otherHost,          // it is for another host, or the request names none
  otherPrefix,        // the URI begins in another way
  noBoundary,         // a longer word begins like the prefix
  otherTail,          // neither URI nor path ends in the tail, or contains it
  suffixIgnored,      // passed over, whatever the URI
  parametersIgnored,  // its tail stands in path parameters only
  matched,
};

// The first test in which a pattern fails; a plain miss comes before the host is told of
// anything. See isPlainMiss.
[[nodiscard]] PatternMatch matchPattern(const uriPattern& pattern,
                                        const MatchSubject& subject);

// Whether the request has simply nothing to do with the pattern: nobody is told of it.
[[nodiscard]] bool isPlainMiss(PatternMatch match);

// One pattern of a run and what its test gave.
struct PatternFinding {
  std::int32_t index;  // as many as the run has, if nothing is left to tell
  PatternMatch match;
};

// The first pattern, from index `from` on, that is no plain miss.
[[nodiscard]] PatternFinding nextFinding(std::span<const uriPattern> patterns,
                                         std::int32_t from, const MatchSubject& subject);
