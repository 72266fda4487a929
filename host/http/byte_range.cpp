#include "http/byte_range.h"

#include <algorithm>

#include "layer/text.h"

namespace host {

// The last bytes of a file: all of one that has fewer.
static ByteRange readSuffix(std::string_view digits, std::int64_t size) {
  const std::int64_t count = std::min(numberOf(digits), size);
  if (count < 0) return {RangeKind::whole, 0, size};
  if (count == 0) return {RangeKind::outside, 0, 0};
  return {RangeKind::part, size - count, count};
}

ByteRange readRange(std::string_view value, std::int64_t size) {
  constexpr std::string_view kUnit = "bytes=";
  const ByteRange whole{RangeKind::whole, 0, size};
  if (!equalsNoCase(value.substr(0, kUnit.size()), kUnit)) return whole;
  value = trimmed(value.substr(kUnit.size()), kBlanks);
  const std::size_t dash = value.find('-');
  if (dash == std::string_view::npos) return whole;
  const std::string_view end = value.substr(dash + 1);
  if (dash == 0) return readSuffix(end, size);
  const std::int64_t first = numberOf(value.substr(0, dash));
  const std::int64_t last = end.empty() ? size - 1 : numberOf(end);
  if (first < 0 || last < 0 || (!end.empty() && last < first)) return whole;
  if (first >= size) return {RangeKind::outside, 0, 0};
  return {RangeKind::part, first, std::min(last, size - 1) - first + 1};
}

std::string rangeText(const ByteRange& range, std::int64_t size) {
  const std::string all = "/" + std::to_string(size);
  if (range.kind == RangeKind::outside) return "bytes *" + all;
  return "bytes " + std::to_string(range.first) + "-" +
         std::to_string(range.first + range.count - 1) + all;
}

}  // namespace host
