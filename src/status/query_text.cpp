#include "status/query_text.h"

#include "context/text.h"

static int hexDigit(char digit) {
  constexpr int kTen = 10;
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + kTen;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + kTen;
  return -1;
}

// The byte that a text begins with, as it was before it was spelled, and the text behind
// it; 0 where it is spelled wrong.
static char takeByte(std::string_view* text) {
  constexpr std::size_t kSpelled = 3;
  constexpr int kBase = 16;
  const char first = text->front();
  if (first != '%') {
    text->remove_prefix(1);
    return first == '+' ? ' ' : first;
  }
  if (text->size() < kSpelled) return '\0';
  const int high = hexDigit((*text)[1]);
  const int low = hexDigit((*text)[2]);
  text->remove_prefix(kSpelled);
  return high < 0 || low < 0 ? '\0' : static_cast<char>(high * kBase + low);
}

static bool decode(std::string_view text, char* value, std::size_t size) {
  std::size_t length = 0;
  while (!text.empty()) {
    const char byte = takeByte(&text);
    if (byte == '\0' || length + 1 >= size) return false;
    value[length++] = byte;
  }
  value[length] = '\0';
  return true;
}

static std::string_view upTo(std::string_view text, char end) {
  const std::size_t at = text.find(end);
  return at == std::string_view::npos ? text : beginOf(text, at);
}

bool readQuery(std::string_view query, std::string_view name, char* value,
               std::size_t size) {
  while (!query.empty()) {
    const std::string_view pair = upTo(query, '&');
    const std::string_view key = upTo(pair, '=');
    if (key == name && key.size() < pair.size())
      return decode(restOf(pair, key.size() + 1), value, size);
    query.remove_prefix(pair.size() < query.size() ? pair.size() + 1 : pair.size());
  }
  return false;
}
