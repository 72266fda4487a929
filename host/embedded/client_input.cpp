#include "embedded/client_input.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

namespace host {

constexpr std::size_t kBufferSize = 65536;

// Line ends in a row that end a head: its last line, and the empty one.
constexpr int kHeadEnd = 2;

// What no head may hold.
constexpr char kNoHeadByte = '\x01';

// How long the thread that waits for clients pauses once there are none.
constexpr timespec kRefusalPause{0, 10000000};

static std::atomic<bool> refusing{false};

static std::mutex idleLock;
static ClientInput* firstIdle = nullptr;  // guarded by idleLock

ClientInput& ClientInput::ofThread() {
  thread_local ClientInput input;
  return input;
}

ClientInput::~ClientInput() {
  setIdle(false);
}

bool ClientInput::open() {
  close();
  if (!buffer_) buffer_.reset(new (std::nothrow) char[kBufferSize]);
  if (!buffer_) return false;
  opening_ = true;
  expectHead();
  return true;
}

void ClientInput::close() {
  setIdle(false);
  begin_ = end_ = 0;
  socket_ = -1;
  opening_ = inHead_ = false;
}

void ClientInput::expectHead() {
  inHead_ = inRequestLine_ = true;
  headBegun_ = false;
  lineEnds_ = blanks_ = 0;
}

std::string_view ClientInput::waiting() const {
  return {buffer_.get() + begin_, end_ - begin_};
}

// Threads that stop share one list. A client joins it when its thread begins to
// wait for a head that has not begun, and is out of it before its socket closes.
void ClientInput::setIdle(bool idle) {
  if (idle == idle_) return;
  std::lock_guard guard(idleLock);
  idle_ = idle;
  if (idle) {
    previousIdle_ = nullptr;
    nextIdle_ = firstIdle;
    if (firstIdle) firstIdle->previousIdle_ = this;
    firstIdle = this;
    if (refusing) (void)shutdown(socket_, SHUT_RD);
    return;
  }
  (previousIdle_ ? previousIdle_->nextIdle_ : firstIdle) = nextIdle_;
  if (nextIdle_) nextIdle_->previousIdle_ = previousIdle_;
}

void ClientInput::refuseClients() {
  std::lock_guard guard(idleLock);
  refusing = true;
  for (ClientInput* client = firstIdle; client; client = client->nextIdle_) {
    (void)shutdown(client->socket_, SHUT_RD);
  }
}

void ClientInput::becomeListener() {
  listener_ = true;
}

bool ClientInput::refuses() const {
  return listener_ && refusing;
}

bool ClientInput::serves(int socket) {
  if (opening_) {
    socket_ = socket;
    opening_ = false;
  }
  if (socket < 0 || socket != socket_) return false;
  setIdle(inHead_ && lineEnds_ == 0 && begin_ == end_);
  return true;
}

// recvfrom, since `recv` is this program's own.
long ClientInput::receiveSome() {
  if (begin_ == end_) begin_ = end_ = 0;
  if (end_ == kBufferSize && begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == kBufferSize) {
    errno = ENOBUFS;
    return -1;
  }
  ssize_t count =
      recvfrom(socket_, buffer_.get() + end_, kBufferSize - end_, 0, nullptr, nullptr);
  if (count > 0) end_ += static_cast<std::size_t>(count);
  return count;
}

int ClientInput::fill() {
  while (true) {
    long count = receiveSome();
    if (count >= 0) return static_cast<int>(count);
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return -1;
    pollfd wait{socket_, POLLIN, 0};
    timespec limit{kClientTimeout / 1000, 0};
    int ready = ppoll(&wait, 1, &limit, nullptr);
    if (ready == 0 || (ready < 0 && errno != EINTR)) return -1;
  }
}

void ClientInput::erase(std::size_t offset, std::size_t count) {
  char* from = buffer_.get() + begin_ + offset;
  std::memmove(from, from + count, end_ - begin_ - offset - count);
  end_ -= count;
}

// Brings the target of a request into the form "/path". On one that begins with
// a server's address CivetWeb closes without an answer, unless the port is its
// own; so it does on "*" and on other schemes, which therefore get the answer
// to what it can't read. A line that comes in pieces is left as it is.
void ClientInput::normalizeTarget() {
  constexpr std::string_view kScheme = "http://";
  std::string_view line = waiting();
  line = line.substr(0, line.find('\n') + 1);  // empty without a line end
  const std::size_t target = line.find(' ') + 1;
  if (target == 0 || line.substr(target).starts_with('/')) return;
  const bool absolute =
      strncasecmp(line.data() + target, kScheme.data(), kScheme.size()) == 0;
  const std::size_t authority = target + kScheme.size();
  const std::size_t path = absolute ? line.find_first_of("/? \r\n", authority) : 0;
  if (!absolute || path == authority) {
    buffer_[begin_ + target] = kNoHeadByte;
  } else if (line[path] == '/') {
    erase(target, path - target);
  } else {  // no path: a slash takes the place of the last byte before it
    buffer_[begin_ + path - 1] = '/';
    erase(target, path - 1 - target);
  }
}

// What CivetWeb gets for a byte of the head. A tab is as good as a blank there,
// and it would refuse it. A third blank in the request line it would take for a
// part of the version, and answer with that; a byte that no head holds has it
// answer properly.
char ClientInput::headByte(char c) {
  constexpr int kRequestLineBlanks = 2;
  if (c == '\t') c = ' ';
  if (c != ' ' || !inRequestLine_) return c;
  return ++blanks_ > kRequestLineBlanks ? kNoHeadByte : c;
}

// The part of the waiting bytes that belongs to the head, `size` at most.
std::size_t ClientInput::headPart(std::size_t size) {
  char* bytes = buffer_.get() + begin_;
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = headByte(bytes[i]);
    if (bytes[i] == '\n') {
      inRequestLine_ = inRequestLine_ && blanks_ == 0;
      ++lineEnds_;
    } else if (bytes[i] != '\r') {
      lineEnds_ = 0;
    }
    if (lineEnds_ < kHeadEnd) continue;
    inHead_ = false;
    return i + 1;
  }
  return size;
}

long ClientInput::receive(void* to, std::size_t size) {
  if (begin_ == end_) {
    long count = receiveSome();
    if (count <= 0) return count;
  }
  setIdle(false);
  if (inHead_ && !headBegun_) normalizeTarget();
  headBegun_ = inHead_;
  size = std::min(size, end_ - begin_);
  if (inHead_) size = headPart(size);
  std::memcpy(to, buffer_.get() + begin_, size);
  begin_ += size;
  return static_cast<long>(size);
}

}  // namespace host

// The names that CivetWeb calls. Under names of their own here, since the
// system's headers may define the others inline.
extern "C" {

__attribute__((visibility("default"))) ssize_t hostRecv(int socket, void* buffer,
                                                        size_t size,
                                                        int flags) __asm__("recv");
__attribute__((visibility("default"))) int hostPoll(pollfd* files, nfds_t count,
                                                    int timeout) __asm__("poll");

ssize_t hostRecv(int socket, void* buffer, size_t size, int flags) {
  host::ClientInput& input = host::ClientInput::ofThread();
  if (flags == 0 && input.serves(socket)) return input.receive(buffer, size);
  return recvfrom(socket, buffer, size, flags, nullptr, nullptr);
}

int hostPoll(pollfd* files, nfds_t count, int timeout) {
  bool reading = count > 0 && (files[0].events & POLLIN) != 0;
  host::ClientInput& input = host::ClientInput::ofThread();
  if (input.refuses()) {
    // The listeners are shut down, which poll would report again and again.
    (void)ppoll(nullptr, 0, &host::kRefusalPause, nullptr);
    return 0;
  }
  if (reading && input.serves(files[0].fd) && !input.waiting().empty()) {
    for (nfds_t i = 0; i < count; ++i) files[i].revents = 0;
    files[0].revents = POLLIN;
    return 1;
  }
  timespec limit{timeout / 1000, (timeout % 1000) * 1000000L};
  return ppoll(files, count, timeout < 0 ? nullptr : &limit, nullptr);
}
}
