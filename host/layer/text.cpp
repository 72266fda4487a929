#include "layer/text.h"

#include <strings.h>

#include <charconv>
#include <system_error>

namespace host {

std::string_view trimmed(std::string_view text, std::string_view marks) {
  const std::size_t first = text.find_first_not_of(marks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(marks) - first + 1);
}

std::string_view takeWord(std::string_view* list, std::string_view separators) {
  const std::size_t start = list->find_first_not_of(separators);
  list->remove_prefix(start == std::string_view::npos ? list->size() : start);
  const std::string_view word = list->substr(0, list->find_first_of(separators));
  list->remove_prefix(word.size());
  return word;
}

bool equalsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// from_chars takes a '-' in front, and a length or a count never has one.
std::int64_t numberOf(std::string_view text, int base) {
  if (text.empty() || text.front() == '-') return -1;
  const char* end = text.data() + text.size();
  std::int64_t number = -1;
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  return error == std::errc() && stop == end ? number : -1;
}

std::string htmlOf(std::string_view text) {
  std::string html;
  for (const char c : text) {
    if (c == '&') {
      html += "&amp;";
    } else if (c == '<') {
      html += "&lt;";
    } else if (c == '>') {
      html += "&gt;";
    } else {
      html += c;
    }
  }
  return html;
}

}  // namespace host
