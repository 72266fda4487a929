// Whether a request belongs to a URI pattern.
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

enum class PatternMatch {
  no,
  matched,
  suffixIgnored,      // passed over, whatever the URI
  parametersIgnored,  // its tail stands in path parameters only
};

[[nodiscard]] PatternMatch matchPattern(const uriPattern& pattern,
                                        const MatchSubject& subject);

// One pattern of a run and what its test gave.
struct PatternFinding {
  std::int32_t index;  // as many as the run has, if nothing is left to tell
  PatternMatch match;
};

// The first pattern, from index `from` on, whose test gives anything but `no`.
[[nodiscard]] PatternFinding nextFinding(std::span<const uriPattern> patterns,
                                         std::int32_t from, const MatchSubject& subject);
