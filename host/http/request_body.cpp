#include "http/request_body.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "layer/text.h"

namespace host {

// A rest up to this size is read and dropped, so that the connection can go on;
// beyond it, closing is cheaper.
constexpr std::int64_t kMaxDrain = 1 << 20;

// Digits of a chunk's size that can't overflow it.
constexpr std::size_t kMaxSizeDigits = 15;

// What waits of a body at most while lines are read from it.
constexpr std::size_t kReadAhead = 16 << 10;

constexpr std::int64_t kSmallChunk = 4 << 10;

// Chunks' lines may be so many times as long as what they frame, beyond some that are
// free: honest ones of a byte each stay well below that.
constexpr std::int64_t kMaxFraming = 16;
constexpr std::int64_t kFreeFraming = 64 << 10;

void RequestBody::open(const RequestHead& head) {
  chunked_ = head.chunked;
  left_ = head.length;
  ended_ = !chunked_ && left_ == 0;
  continueWaits_ = head.expectsContinue;
}

bool RequestBody::tooLong() const {
  return limits_.requestBody > 0 && taken_ + left_ > limits_.requestBody;
}

bool RequestBody::takeContinue() {
  const bool waits = continueWaits_ && !ended_;
  continueWaits_ = false;
  return waits;
}

int RequestBody::refuse(const char* limit) {
  limitMet_ = limit;
  return -1;
}

// Waits for bytes if none has come. Brief waits count, too: a byte at the end of each
// would keep no rate at all.
int RequestBody::receive(char* to, std::size_t size) {
  const std::int64_t begin = steadyMillis();
  ssize_t count = client_->channel->receive(to, size, Wait::brief);
  while (count < 0) {
    if (errno != EAGAIN && errno != EINTR) return -1;
    const std::int64_t left = begin + patience_.limit - steadyMillis();
    if (left <= 0) return refuse("BodyTimeout");
    if (client_->channel->wait(static_cast<int>(left)) == 0) return refuse("BodyTimeout");
    count = client_->channel->receive(to, size, Wait::none);
  }
  received_ += count;
  patience_.waited += steadyMillis() - begin;
  if (isOver(patience_, taken_ + count)) return refuse("MinBodyRate");
  return static_cast<int>(count);
}

// Behind what waits: for lines, which must be whole before they can be read.
bool RequestBody::receiveMore() {
  const auto most = std::max(kReadAhead, static_cast<std::size_t>(limits_.trailers));
  const std::span<char> room = client_->input.makeRoom(most);
  if (room.empty()) return false;
  const int count = receive(room.data(), room.size());
  if (count > 0) client_->input.add(static_cast<std::size_t>(count));
  return count > 0;
}

// Bytes of a body go to the reader without a stay, unless they came with others. Of
// a small chunk the next line is likely to come with it.
int RequestBody::readBytes(char* buffer, std::size_t size) {
  const bool small = chunked_ && left_ < kSmallChunk;
  if (small && client_->input.waiting().empty() && !receiveMore()) return -1;
  size = static_cast<std::size_t>(std::min(static_cast<std::int64_t>(size), left_));
  const std::string_view waiting = client_->input.waiting();
  int count = static_cast<int>(std::min(size, waiting.size()));
  if (count > 0) {
    std::memcpy(buffer, waiting.data(), static_cast<std::size_t>(count));
    client_->input.take(static_cast<std::size_t>(count));
  } else {
    count = receive(buffer, size);
    if (count <= 0) return -1;
  }
  left_ -= count;
  taken_ += count;
  return count;
}

// The next line, with its end, once it is there whole; empty when it isn't to
// come, or is longer than `most`. It must be taken.
std::string_view RequestBody::readLine(std::int64_t most) {
  while (true) {
    const std::string_view waiting = client_->input.waiting();
    const std::size_t end = waiting.find('\n');
    const std::size_t size = end == std::string_view::npos ? waiting.size() : end + 1;
    if (size > static_cast<std::size_t>(most)) {
      (void)refuse("LimitTrailers");
      return {};
    }
    if (end != std::string_view::npos) return waiting.substr(0, size);
    if (!receiveMore()) return {};
  }
}

// The end of line that stands behind a chunk's bytes.
bool RequestBody::endLine() {
  constexpr std::string_view kLineEnd = "\r\n";
  while (client_->input.waiting().size() < kLineEnd.size()) {
    if (!client_->input.waiting().empty() && client_->input.waiting()[0] != '\r') break;
    if (!receiveMore()) return false;
  }
  const bool there = client_->input.waiting().starts_with(kLineEnd);
  if (there) client_->input.take(kLineEnd.size());
  return there;
}

// A control byte within a line is where two readers see two ends.
static bool isCleanLine(std::string_view line) {
  if (!line.ends_with("\r\n")) return false;
  line.remove_suffix(2);
  return std::all_of(line.begin(), line.end(), [](char c) {
    return c == '\t' || (static_cast<unsigned char>(c) >= ' ' && c != '\x7f');
  });
}

// The size of a chunk; extensions mean nothing here. -1 for a line that is none.
static std::int64_t chunkSize(std::string_view line) {
  if (!isCleanLine(line)) return -1;
  line.remove_suffix(2);
  const std::size_t end = std::min(line.find(';'), line.size());
  std::string_view digits = line.substr(0, end);
  // Blanks may stand before an extension, and nowhere else.
  if (end < line.size()) digits = digits.substr(0, digits.find_last_not_of(kBlanks) + 1);
  return digits.size() > kMaxSizeDigits ? -1 : numberOf(digits, 16);
}

bool RequestBody::openChunk() {
  const std::string_view line = readLine(limits_.trailers);
  const std::int64_t size = line.empty() ? -1 : chunkSize(line);
  if (size < 0) return false;
  client_->input.take(line.size());
  lineBytes_ += static_cast<std::int64_t>(line.size());
  if (lineBytes_ > kMaxFraming * taken_ + kFreeFraming) {
    return refuse("LimitTrailers") == 0;
  }
  left_ = size;
  inChunk_ = size > 0;
  return size > 0 || readTrailers();
}

// Nobody asks for trailers, so they are dropped; their end is the body's.
bool RequestBody::readTrailers() {
  std::int64_t room = limits_.trailers;
  while (true) {
    const std::string_view line = readLine(room);
    if (!isCleanLine(line)) return false;
    room -= static_cast<std::int64_t>(line.size());
    const bool last = line.size() == 2;
    client_->input.take(line.size());
    if (last) break;
  }
  ended_ = true;
  return true;
}

int RequestBody::readChunk(char* buffer, std::size_t size) {
  if (left_ == 0) {
    if (inChunk_ && !endLine()) return -1;
    if (!openChunk()) return -1;
    if (ended_) return 0;
    if (tooLong()) return refuse("LimitRequestBody");
  }
  return readBytes(buffer, size);
}

int RequestBody::read(char* buffer, int size) {
  if (broken_) return -1;
  if (ended_ || size <= 0) return 0;
  const auto most = static_cast<std::size_t>(size);
  const int count = chunked_ ? readChunk(buffer, most) : readBytes(buffer, most);
  broken_ = count < 0;
  if (!chunked_) ended_ = left_ == 0;
  return count;
}

// A client that still waits for its word may send the body or not: nobody can
// tell what its next bytes are.
bool RequestBody::drain() {
  const bool cheap = !continueWaits_ && (chunked_ || left_ <= kMaxDrain);
  char buffer[8192];
  const std::int64_t begin = received_;
  while (cheap && !ended_ && received_ - begin <= kMaxDrain) {
    if (read(buffer, sizeof(buffer)) < 0) return false;
  }
  return ended_;
}

}  // namespace host
