#include "httpd/certificate.h"

#include <cctype>

#include "layer/uri.h"

namespace host {

constexpr std::size_t kLine = 64;
constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kEnd = "-----END CERTIFICATE-----";

static std::string_view withoutMarks(std::string_view text) {
  const std::size_t begin = text.find(kBegin);
  if (begin == std::string_view::npos) return text;
  text.remove_prefix(begin + kBegin.size());
  return text.substr(0, text.find(kEnd));
}

static bool isBase64(char c) {
  const auto digit = static_cast<unsigned char>(c);
  return std::isalnum(digit) || c == '+' || c == '/' || c == '=';
}

std::string certificateText(std::string_view text) {
  std::string decoded;
  if (!decodeUri(text, &decoded)) return {};
  std::string lines;
  std::size_t column = 0;
  for (const char c : withoutMarks(decoded)) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    if (!isBase64(c)) return {};
    if (column++ % kLine == 0 && column > 1) lines += '\n';
    lines += c;
  }
  return lines;
}

}  // namespace host
