// Patterns of a server against URIs of a browser: the lines of the input are the
// pattern, the URI, the path and the host.
#include <cstdlib>
#include <string>
#include <vector>

#include "patterns/pattern_match.h"

static std::vector<std::string> linesOf(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> lines(1);
  for (std::size_t i = 0; i < size; ++i) {
    const char c = static_cast<char>(data[i]);
    if (c == '\n')
      lines.emplace_back();
    else if (c != '\0')
      lines.back().push_back(c);
  }
  lines.resize(4);
  return lines;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::string> lines = linesOf(data, size);
  MatchSubject subject{};
  subject.uri = lines[1];
  subject.strippedPath = lines[2];
  subject.hadParameters = lines[2].find(';') != std::string::npos;
  subject.hasHost = !lines[3].empty();
  subject.host = lines[3];
  const uriPattern pattern = splitPattern(lines[0].c_str());
  // Without a '*' in it, what matches begins with the pattern's path.
  const bool plain = lines[0].find('*') == std::string::npos;
  const PatternMatch match = matchPattern(pattern, subject);
  const bool matched = match == PatternMatch::matched;
  // A walk rules most patterns out by a shorter test.
  const bool told = nextFinding({&pattern, 1}, 0, subject).index == 0;
  if (told == isPlainMiss(match)) std::abort();
  if (matched && plain && !subject.uri.starts_with(prefixOf(pattern))) std::abort();
  // Head, prefix, star and tail make up the text.
  const auto head = static_cast<std::size_t>(pattern.pathStart);
  const std::size_t star = pattern.contains + (pattern.tailLength > 0 ? 1 : 0);
  if (head + prefixOf(pattern).size() + tailOf(pattern).size() + star > lines[0].size())
    std::abort();
  return 0;
}
