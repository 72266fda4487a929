#include "patterns/pattern_match.h"

#include <strings.h>

constexpr auto kNowhere = std::string_view::npos;

// What may follow a prefix in a URI.
static bool isBoundary(char c) {
  return c == '/' || c == '&' || c == '#';
}

// The whole value counts, port included: a pattern for one port must not take requests
// of another.
static bool hostFits(const uriPattern& pattern, const MatchSubject& subject) {
  if (!pattern.hasHost) return true;
  const std::string_view host = hostOf(pattern);
  return subject.hasHost && subject.host.size() == host.size() &&
         strncasecmp(subject.host.data(), host.data(), host.size()) == 0;
}

// Host and prefix are no conditions of a contains pattern: the prefix only says
// from where on the tail is looked for. An offset behind the end finds nothing.
static bool containsFits(const uriPattern& pattern, const MatchSubject& subject) {
  const std::string_view tail = tailOf(pattern);
  const auto from = static_cast<std::size_t>(pattern.prefixLength);
  return subject.uri.find(tail, from) != kNowhere ||
         subject.strippedPath.find(tail, from) != kNowhere;
}

static bool textFits(const uriPattern& pattern, const MatchSubject& subject) {
  if (pattern.contains) return containsFits(pattern, subject);
  const std::string_view tail = tailOf(pattern);
  return subject.uri.starts_with(prefixOf(pattern)) &&
         (subject.uri.ends_with(tail) || subject.strippedPath.ends_with(tail)) &&
         hostFits(pattern, subject);
}

// Whether the tail stands in the URI only behind its last ';', so that nothing but
// a path parameter looks like the extension.
static bool onlyInParameters(const uriPattern& pattern, const MatchSubject& subject) {
  if (!subject.hadParameters || pattern.tailLength == 0) return false;
  const std::string_view tail = tailOf(pattern);
  // Without a ';' of its own the URI has nowhere to search, and nothing is found.
  const std::size_t found = subject.uri.find(tail, subject.uri.rfind(';'));
  return found != kNowhere && found == subject.uri.find(tail);
}

// Whether lengths and single bytes rule a match out. Most patterns of a long table
// end here, before any text of theirs is fetched; what is ruled out here would fail
// one of the full tests as well, and none of those tells why.
static bool isRuledOut(const uriPattern& pattern, const MatchSubject& subject) {
  const auto length = static_cast<std::size_t>(pattern.prefixLength);
  const std::string_view uri = subject.uri;
  if (length < uri.size() && !isBoundary(uri[length])) return true;
  if (pattern.contains || length == 0) return false;
  return length > uri.size() || uri[length - 1] != pattern.prefixEnd;
}

PatternMatch matchPattern(const uriPattern& pattern, const MatchSubject& subject) {
  if (subject.ignoreSuffix && pattern.isSuffix) return PatternMatch::suffixIgnored;
  if (isRuledOut(pattern, subject)) return PatternMatch::no;
  if (!textFits(pattern, subject)) return PatternMatch::no;
  if (onlyInParameters(pattern, subject)) return PatternMatch::parametersIgnored;
  return PatternMatch::matched;
}

PatternFinding nextFinding(std::span<const uriPattern> patterns, std::int32_t from,
                           const MatchSubject& subject) {
  const auto count = static_cast<std::int32_t>(patterns.size());
  for (std::int32_t i = from; i < count; ++i) {
    const PatternMatch match =
        matchPattern(patterns[static_cast<std::size_t>(i)], subject);
    if (match != PatternMatch::no) return {.index = i, .match = match};
  }
  return {.index = count, .match = PatternMatch::no};
}
