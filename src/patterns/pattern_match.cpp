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

static bool tailFits(const uriPattern& pattern, const MatchSubject& subject) {
  if (pattern.contains) return containsFits(pattern, subject);
  const std::string_view tail = tailOf(pattern);
  return subject.uri.ends_with(tail) || subject.strippedPath.ends_with(tail);
}

// Whether the URI ends with the prefix, or goes on as a path below it does.
static bool boundaryFits(const uriPattern& pattern, const MatchSubject& subject) {
  const auto length = static_cast<std::size_t>(pattern.prefixLength);
  return length >= subject.uri.size() || isBoundary(subject.uri[length]);
}

static bool isIgnored(const uriPattern& pattern, const MatchSubject& subject) {
  return subject.ignoreSuffix && pattern.isSuffix;
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

// All conditions must hold, so their order decides about the reason alone. It is the one
// in which a pattern is read: who asks why "/shop" doesn't take "/help" wants to hear of
// the prefix.
PatternMatch matchPattern(const uriPattern& pattern, const MatchSubject& subject) {
  if (isIgnored(pattern, subject)) return PatternMatch::suffixIgnored;
  if (!pattern.contains) {
    if (!hostFits(pattern, subject)) return PatternMatch::otherHost;
    if (!subject.uri.starts_with(prefixOf(pattern))) return PatternMatch::otherPrefix;
  }
  if (!boundaryFits(pattern, subject)) return PatternMatch::noBoundary;
  if (!tailFits(pattern, subject)) return PatternMatch::otherTail;
  if (onlyInParameters(pattern, subject)) return PatternMatch::parametersIgnored;
  return PatternMatch::matched;
}

bool isPlainMiss(PatternMatch match) {
  return match < PatternMatch::suffixIgnored;
}

// Whether lengths and single bytes make a pattern a plain miss. Most patterns of a long
// table end here, before any text of theirs is fetched; what is ruled out here would fail
// one of the full tests as well. One that is ignored is no plain miss: it is told of.
static bool isRuledOut(const uriPattern& pattern, const MatchSubject& subject) {
  if (!boundaryFits(pattern, subject)) return !isIgnored(pattern, subject);
  const auto length = static_cast<std::size_t>(pattern.prefixLength);
  if (pattern.contains || length == 0) return false;
  return length > subject.uri.size() || subject.uri[length - 1] != pattern.prefixEnd;
}

PatternFinding nextFinding(std::span<const uriPattern> patterns, std::int32_t from,
                           const MatchSubject& subject) {
  const auto count = static_cast<std::int32_t>(patterns.size());
  for (std::int32_t i = from; i < count; ++i) {
    const uriPattern& pattern = patterns[static_cast<std::size_t>(i)];
    if (isRuledOut(pattern, subject)) continue;
    const PatternMatch match = matchPattern(pattern, subject);
    if (!isPlainMiss(match)) return {.index = i, .match = match};
  }
  return {.index = count, .match = PatternMatch::otherPrefix};
}
