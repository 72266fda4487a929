#include "backend/pages/query.h"

#include "backend/text.h"

namespace backend {

// Takes one character off the front, which may be written as '+' or %XX. A '%'
// that encodes nothing stands for itself, as people mean it who type one.
static char takeDecoded(std::string_view& text) {
  const char first = text.front();
  if (first == '%' && text.size() > 2) {
    const int high = hexDigit(text[1]);
    const int low = hexDigit(text[2]);
    if (high >= 0 && low >= 0) {
      text.remove_prefix(3);
      return static_cast<char>(high * 16 + low);
    }
  }
  text.remove_prefix(1);
  return first == '+' ? ' ' : first;
}

static std::string decode(std::string_view text) {
  std::string result;
  while (!text.empty()) result.push_back(takeDecoded(text));
  return result;
}

Query parseQuery(std::string_view text) {
  Query query;
  while (!text.empty()) {
    const std::size_t end = text.find('&');
    const std::string_view pair = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (pair.empty()) continue;
    const std::size_t equals = pair.find('=');
    const bool hasValue = equals != std::string_view::npos;
    query.emplace_back(decode(pair.substr(0, equals)),
                       hasValue ? decode(pair.substr(equals + 1)) : std::string());
  }
  return query;
}

std::string_view valueOf(const Query& query, std::string_view name,
                         std::string_view fallback) {
  for (const auto& [key, value] : query) {
    if (key == name) return value;
  }
  return fallback;
}

std::int64_t numberOf(const Query& query, std::string_view name, Range range) {
  const std::string_view text = valueOf(query, name, {});
  if (text.empty()) return range.fallback;
  const std::optional<std::int64_t> number = wholeNumber(text);
  if (number && *number >= range.least && *number <= range.most) return *number;
  throw BadRequest("'" + std::string(name) + "' must be a whole number from " +
                   std::to_string(range.least) + " to " + std::to_string(range.most) +
                   ", not '" + std::string(text.substr(0, 40)) + "'");
}

}  // namespace backend
