#include "http/head_scan.h"

namespace host {

constexpr std::string_view kLineEnd = "\r\n";

std::size_t emptyLines(std::string_view bytes) {
  std::size_t count = 0;
  while (bytes.substr(count).starts_with(kLineEnd)) count += kLineEnd.size();
  return count;
}

// A line that begins with a blank goes on with the one before: two readers have
// been told apart by that, so no head may have one.
static bool isFolded(std::string_view line) {
  return line.front() == ' ' || line.front() == '\t';
}

static HeadState limited(const HeadScan& scan, const HeadSizes& limits) {
  if (scan.line == 0 && scan.size > limits.firstLine) return HeadState::uriTooLong;
  return scan.size > limits.head ? HeadState::tooLong : HeadState::incomplete;
}

// Takes the next line, if it has come whole.
static HeadState scanLine(HeadScan* scan, std::string_view bytes,
                          const HeadSizes& limits) {
  const std::size_t end = bytes.find('\n', scan->size);
  const bool whole = end != std::string_view::npos;
  scan->size = whole ? end + 1 : bytes.size();
  const HeadState state = limited(*scan, limits);
  if (state != HeadState::incomplete || !whole) return state;
  const std::string_view line = bytes.substr(scan->line, scan->size - scan->line);
  if (!line.ends_with(kLineEnd) || isFolded(line)) return HeadState::malformed;
  if (line == kLineEnd) return HeadState::complete;
  scan->line = scan->size;
  return HeadState::incomplete;
}

HeadState scanHead(HeadScan* scan, std::string_view bytes, const HeadSizes& limits) {
  while (scan->state == HeadState::incomplete && scan->size < bytes.size()) {
    scan->state = scanLine(scan, bytes, limits);
  }
  return scan->state;
}

}  // namespace host
