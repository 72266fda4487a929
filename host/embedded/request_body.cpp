#include "embedded/request_body.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "embedded/client_input.h"
#include "layer/status.h"
#include "layer/text.h"

namespace host {

// A rest up to this size is read and dropped, so that the connection can go on;
// beyond it, closing is cheaper.
constexpr std::int64_t kMaxDrain = 1 << 20;

// Digits of a chunk's size that can't overflow it.
constexpr std::size_t kMaxSizeDigits = 15;

// Two readers that take different bytes for a blank could disagree on where a
// body ends, so only this one is.
static std::string_view trimmed(std::string_view text) {
  return trimmed(text, " ");
}

static bool isWord(const char* value, std::string_view word) {
  return equalsNoCase(trimmed(value), word);
}

int RequestBody::open(const mg_request_info* info) {
  bool counted = false;
  bool http11 = info->http_version && std::strcmp(info->http_version, "1.1") == 0;
  for (int i = 0; i < info->num_headers; ++i) {
    const mg_header& header = info->http_headers[i];
    if (strcasecmp(header.name, "Content-Length") == 0) {
      left_ = numberOf(trimmed(header.value));
      if (counted || left_ < 0) return kBadRequest;
      counted = true;
    } else if (strcasecmp(header.name, "Transfer-Encoding") == 0) {
      if (chunked_ || !http11 || !isWord(header.value, "chunked")) return kBadRequest;
      chunked_ = true;
    } else if (strcasecmp(header.name, "Expect") == 0 && http11) {
      if (!isWord(header.value, "100-continue")) return kExpectationFailed;
      continueWaits_ = true;
    }
  }
  if (chunked_ && counted) return kBadRequest;
  ended_ = !chunked_ && left_ == 0;
  return 0;
}

bool RequestBody::takeContinue() {
  bool waits = continueWaits_ && !ended_;
  continueWaits_ = false;
  return waits;
}

int RequestBody::readCounted(mg_connection* connection, unsigned char* buffer, int size) {
  ClientInput& input = ClientInput::ofThread();
  if (input.waiting().empty() && input.fill() <= 0) return -1;
  auto come = static_cast<std::int64_t>(input.waiting().size());
  std::int64_t count = std::min({std::int64_t{size}, left_, come});
  if (mg_read(connection, buffer, static_cast<std::size_t>(count)) != count) return -1;
  left_ -= count;
  ended_ = left_ == 0;
  return static_cast<int>(count);
}

// The length of the line that begins at `start`, with its end; 0 when the
// client leaves before it is there.
static std::size_t waitForLine(ClientInput* input, std::size_t start) {
  while (true) {
    std::string_view bytes = input->waiting().substr(start);
    std::size_t end = bytes.find('\n');
    if (end != std::string_view::npos) return end + 1;
    if (input->fill() <= 0) return 0;
  }
}

// Reads a chunk's line, where it stands; CivetWeb will read it again. It knows
// no extensions, so they are taken out.
bool RequestBody::openChunk() {
  ClientInput& input = ClientInput::ofThread();
  std::size_t line = waitForLine(&input, 0);
  std::string_view text = input.waiting().substr(0, line);
  if (line < 2 || text[line - 2] != '\r') return false;
  text.remove_suffix(2);
  std::size_t digits = std::min(text.find(';'), text.size());
  std::size_t end = trimmed(text.substr(0, digits)).size();
  left_ = end > kMaxSizeDigits ? -1 : numberOf(text.substr(0, end), 16);
  if (left_ < 0) return false;
  input.erase(end, text.size() - end);
  chunkLine_ = static_cast<std::int64_t>(end + 2);
  return true;
}

// Behind the last chunk's line: trailers, which nobody asks for and which are
// taken out, and the empty line.
int RequestBody::endChunks(mg_connection* connection) {
  ClientInput& input = ClientInput::ofThread();
  auto start = static_cast<std::size_t>(chunkLine_);
  std::size_t line;
  while ((line = waitForLine(&input, start)) > 2) input.erase(start, line);
  if (line != 2 || input.waiting()[start] != '\r') return -1;
  unsigned char none;
  if (mg_read(connection, &none, 1) != 0) return -1;
  ended_ = true;
  return 0;
}

int RequestBody::readChunk(mg_connection* connection, unsigned char* buffer, int size) {
  ClientInput& input = ClientInput::ofThread();
  if (left_ == 0) {
    if (!openChunk()) return -1;
    if (left_ == 0) return endChunks(connection);
  }
  auto come = static_cast<std::int64_t>(input.waiting().size()) - chunkLine_;
  if (come == 0) {
    if (input.fill() <= 0) return -1;
    come = static_cast<std::int64_t>(input.waiting().size()) - chunkLine_;
  }
  std::int64_t count = std::min({std::int64_t{size}, left_, come});
  if (mg_read(connection, buffer, static_cast<std::size_t>(count)) != count) return -1;
  chunkLine_ = 0;
  left_ -= count;
  return static_cast<int>(count);
}

int RequestBody::read(mg_connection* connection, unsigned char* buffer, int size) {
  if (broken_) return -1;
  if (ended_ || size <= 0) return 0;
  int count = chunked_ ? readChunk(connection, buffer, size)
                       : readCounted(connection, buffer, size);
  broken_ = count < 0;
  return count;
}

// A client that still waits for its word may send the body or not: nobody can
// tell what its next bytes are.
bool RequestBody::drain(mg_connection* connection) {
  bool cheap = !continueWaits_ && (chunked_ || left_ <= kMaxDrain);
  unsigned char buffer[8192];
  std::int64_t drained = 0;
  while (cheap && !ended_ && drained <= kMaxDrain) {
    int count = read(connection, buffer, sizeof(buffer));
    if (count < 0) return false;
    drained += count;
  }
  return ended_;
}

}  // namespace host
