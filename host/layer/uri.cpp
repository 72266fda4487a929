#include "layer/uri.h"

#include "layer/text.h"

namespace host {

// The byte that the two digits behind a '%' stand for, or -1.
static int encodedByte(std::string_view digits) {
  if (digits.size() < 2) return -1;
  int high = hexDigit(digits[0]);
  int low = hexDigit(digits[1]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

bool decodeUri(std::string_view raw, std::string* decoded) {
  decoded->clear();
  decoded->reserve(raw.size());
  for (std::size_t i = 0; i < raw.size(); ++i) {
    int byte = static_cast<unsigned char>(raw[i]);
    if (raw[i] == '%') {
      byte = encodedByte(raw.substr(i + 1));
      i += 2;
    }
    if (byte <= 0) return false;
    decoded->push_back(static_cast<char>(byte));
  }
  return true;
}

// Path parameters don't make a segment harmless: "..;x" reaches a server that
// drops them as "..".
static bool segmentIsEvil(std::string_view segment) {
  segment = segment.substr(0, segment.find(';'));
  return segment == "." || segment == "..";
}

bool uriIsEvil(std::string_view path) {
  if (path.find("//") != std::string_view::npos) return true;
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    if (segmentIsEvil(path.substr(0, slash))) return true;
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return false;
}

}  // namespace host
