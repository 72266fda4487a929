#include "patterns/uri_pattern.h"

#include <cstring>

#include "context/text.h"

constexpr char kHostMark[] = "//";
constexpr std::int32_t kHostMarkLength = 2;
constexpr int kHostBit = 63;
constexpr int kPrefixBits = 32;

static bool isHostQualified(const char* pattern) {
  return std::strncmp(pattern, kHostMark, kHostMarkLength) == 0;
}

// Where the path of a pattern begins: at its first '/' behind the host, if it
// names one.
static const char* pathPart(const char* pattern) {
  if (!isHostQualified(pattern)) return pattern;
  const char* host = pattern + kHostMarkLength;
  return host + std::strcspn(host, "/");
}

std::int32_t prefixlen(const char* pattern) {
  return clampToInt32(static_cast<std::int64_t>(std::strcspn(pathPart(pattern), "*")));
}

// The first '*' of the whole pattern counts, even one within the host: there it is a
// plain character to the match, and a star to the order.
std::int32_t extlen(const char* pattern) {
  const char* star = std::strchr(pattern, '*');
  return star ? clampToInt32(textLength(star + 1)) : 0;
}

// One number, because a merge compares each pattern many times and would else walk over
// both texts each time. Lengths are cut to 31 bits, which no text of a table exceeds.
std::uint64_t patternRank(const char* pattern) {
  const std::uint64_t host = isHostQualified(pattern) ? 1 : 0;
  const auto prefix = static_cast<std::uint64_t>(prefixlen(pattern));
  const auto ext = static_cast<std::uint64_t>(extlen(pattern));
  return host << kHostBit | prefix << kPrefixBits | ext;
}

uriPattern splitPattern(const char* text) {
  const char* path = pathPart(text);
  uriPattern pattern{};
  pattern.text = text;
  pattern.rank = patternRank(text);
  pattern.pathStart = static_cast<std::int32_t>(path - text);
  pattern.prefixLength = prefixlen(text);
  pattern.hasHost = isHostQualified(text) ? 1 : 0;
  pattern.isSuffix = std::strncmp(path, "*.", 2) == 0 ? 1 : 0;
  // Patterns of one application share their beginning, so the end of a prefix tells
  // most of them apart.
  if (pattern.prefixLength > 0) pattern.prefixEnd = path[pattern.prefixLength - 1];
  if (path[pattern.prefixLength] == '\0') return pattern;

  const char* tail = path + pattern.prefixLength + 1;
  pattern.tailLength = clampToInt32(textLength(tail));
  pattern.contains =
      pattern.tailLength > 0 && tail[pattern.tailLength - 1] == '*' ? 1 : 0;
  if (pattern.contains) --pattern.tailLength;
  return pattern;
}

// No substr in these: it would bring in the C++ library for a check that can't fail.

static std::string_view partOf(const uriPattern& pattern, std::int32_t start,
                               std::int32_t length) {
  return {pattern.text + start, static_cast<std::size_t>(length)};
}

std::string_view hostOf(const uriPattern& pattern) {
  if (!pattern.hasHost) return {};
  return partOf(pattern, kHostMarkLength, pattern.pathStart - kHostMarkLength);
}

std::string_view prefixOf(const uriPattern& pattern) {
  return partOf(pattern, pattern.pathStart, pattern.prefixLength);
}

// A pattern without a '*' has an empty tail, which the offset then lies one behind.
std::string_view tailOf(const uriPattern& pattern) {
  if (pattern.tailLength == 0) return {};
  return partOf(pattern, pattern.pathStart + pattern.prefixLength + 1,
                pattern.tailLength);
}
