#include "backend/wire/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "backend/wire/bytes.h"
#include "backend/wire/protocol.h"

namespace backend {

constexpr std::size_t kInputBuffer{64U << 10U};

// An output buffer that has grown beyond this is given back after its flush.
constexpr std::size_t kKeptOutput{256U << 10U};

Connection::Connection(int fd, std::string peer, std::string local)
    : fd_(fd), peer_(std::move(peer)), local_(std::move(local)), in_(kInputBuffer) {}

// Reads once into the empty input buffer. False at the end and on an error.
bool Connection::fill() {
  begin_ = 0;
  end_ = 0;
  ssize_t got = 0;
  do {
    got = recv(fd_, in_.data(), in_.size(), 0);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return false;
  end_ = static_cast<std::size_t>(got);
  return true;
}

bool Connection::waitForByte() {
  return begin_ < end_ || fill();
}

void Connection::readExactly(char* into, std::size_t size) {
  while (size > 0) {
    if (begin_ == end_ && !fill()) {
      throw ConnectionLost("connection lost while reading");
    }
    const std::size_t piece = std::min(size, end_ - begin_);
    memcpy(into, in_.data() + begin_, piece);
    begin_ += piece;
    into += piece;
    size -= piece;
  }
}

std::int32_t Connection::readWord() {
  char bytes[4];
  readExactly(bytes, sizeof(bytes));
  return wordAt(bytes);
}

std::string Connection::readText(std::int32_t limit) {
  const std::int32_t length = readWord();
  if (length < 0 || length > limit) {
    throw ProtocolError("length " + std::to_string(length) +
                        " of a string, allowed are " + std::to_string(limit));
  }
  return readBlock(static_cast<std::size_t>(length));
}

// The text grows with what has come, so a peer that announces much and sends
// nothing costs no memory.
std::string Connection::readBlock(std::size_t size) {
  std::string text;
  while (text.size() < size) {
    const std::size_t piece = std::min(size - text.size(), kInputBuffer);
    const std::size_t old = text.size();
    text.resize(old + piece);
    readExactly(text.data() + old, piece);
  }
  return text;
}

void Connection::flush() {
  std::size_t sent = 0;
  while (sent < out.size()) {
    const ssize_t done = send(fd_, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) throw ConnectionLost("connection lost while writing");
    sent += static_cast<std::size_t>(done);
  }
  out.clear();
  if (out.capacity() > kKeptOutput) out.shrink_to_fit();
}

void Connection::resetOnClose() const {
  const linger now{1, 0};
  // If this fails, the peer sees an orderly end instead: still an end.
  (void)setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
}

const std::string& Connection::peer() const {
  return peer_;
}

const std::string& Connection::local() const {
  return local_;
}

}  // namespace backend
