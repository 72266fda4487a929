#include "backend/text.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace backend {

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool equalsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::int64_t> wholeNumber(std::string_view text) {
  const char* end = text.data() + text.size();
  std::int64_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string hexOf(std::span<const unsigned char> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text.push_back(kDigits[byte >> 4U]);
    text.push_back(kDigits[byte & 0xfU]);
  }
  return text;
}

static unsigned char byteAt(std::string_view text, std::size_t position) {
  return static_cast<unsigned char>(text[position]);
}

// How many continuation bytes a lead byte calls for; -1 when it is none.
static int continuationsOf(unsigned char lead) {
  if (lead < 0x80) return 0;
  if (lead >= 0xc2 && lead <= 0xdf) return 1;
  if (lead >= 0xe0 && lead <= 0xef) return 2;
  if (lead >= 0xf0 && lead <= 0xf4) return 3;
  return -1;
}

// Overlong forms, surrogates and what is above the last code point show in the
// second byte.
static bool isSecondByteFine(unsigned char lead, unsigned char second) {
  switch (lead) {
    case 0xe0:
      return second >= 0xa0;
    case 0xed:
      return second <= 0x9f;
    case 0xf0:
      return second >= 0x90;
    case 0xf4:
      return second <= 0x8f;
    default:
      return true;
  }
}

// The length of the valid UTF-8 character at `position`, or 0.
static std::size_t characterAt(std::string_view text, std::size_t position) {
  const unsigned char lead = byteAt(text, position);
  const int more = continuationsOf(lead);
  if (more < 0 || text.size() - position <= static_cast<std::size_t>(more)) return 0;
  for (std::size_t i = 1; i <= static_cast<std::size_t>(more); ++i) {
    if ((byteAt(text, position + i) & 0xc0U) != 0x80) return 0;
  }
  if (more > 0 && !isSecondByteFine(lead, byteAt(text, position + 1))) return 0;
  return static_cast<std::size_t>(more) + 1;
}

static bool isUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = characterAt(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string asUtf8(std::string_view text) {
  if (isUtf8(text)) return std::string(text);
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      result.push_back(c);
      continue;
    }
    result.push_back(static_cast<char>(0xc0U | (byte >> 6U)));
    result.push_back(static_cast<char>(0x80U | (byte & 0x3fU)));
  }
  return result;
}

static void appendHtml(std::string& out, char c) {
  switch (c) {
    case '&':
      out += "&amp;";
      return;
    case '<':
      out += "&lt;";
      return;
    case '>':
      out += "&gt;";
      return;
    case '"':
      out += "&quot;";
      return;
    case '\'':
      out += "&#39;";
      return;
    default:
      break;
  }
  const auto byte = static_cast<unsigned char>(c);
  if (byte < 0x20 || byte == 0x7f) {
    out += "\xef\xbf\xbd";  // the replacement character: HTML has no form for these
    return;
  }
  out.push_back(c);
}

std::string htmlOf(std::string_view text) {
  std::string out;
  for (const char c : asUtf8(text)) appendHtml(out, c);
  return out;
}

bool isHeaderSafe(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

}  // namespace backend
