#include "http/channel.h"

#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace host {

namespace {

class PlainChannel final : public Channel {
 public:
  explicit PlainChannel(int socket) : socket_(socket) {}
  ~PlainChannel() override {
    (void)close(socket_);
  }

  ssize_t receive(char* to, std::size_t size, Wait wait) override {
    awaits_ = POLLIN;
    return recv(socket_, to, size, wait == Wait::none ? MSG_DONTWAIT : 0);
  }

  ssize_t send(std::span<const iovec> parts, bool more) override {
    awaits_ = POLLOUT;
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts.data());  // sendmsg writes nothing there
    message.msg_iovlen = parts.size();
    return sendmsg(socket_, &message,
                   MSG_DONTWAIT | MSG_NOSIGNAL | (more ? MSG_MORE : 0));
  }

  // sendfile has no flag for it, so it blocks for the limit that the socket has.
  ssize_t sendFile(int file, off_t offset, std::size_t count) override {
    awaits_ = POLLOUT;
    const ssize_t sent = sendfile(socket_, file, &offset, count);
    if (sent < 0 && errno == EAGAIN) errno = ETIMEDOUT;
    return sent;
  }

  void endSending() override {
    (void)shutdown(socket_, SHUT_WR);
  }

  void abandon() override {
    const linger now{1, 0};
    (void)setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  }

  int wait(int milliseconds) override {
    pollfd file{socket_, awaits_, 0};
    return poll(&file, 1, milliseconds);
  }

  int socket() const override {
    return socket_;
  }

  bool neverBlocks() const override {
    return false;
  }

 private:
  int socket_;
};

}  // namespace

std::unique_ptr<Channel> openPlainChannel(int socket) {
  std::unique_ptr<Channel> channel(new (std::nothrow) PlainChannel(socket));
  if (!channel) (void)close(socket);
  return channel;
}

// After a call that gave `result`: whether to call again. A wait that a signal
// ends is begun anew.
static bool mayGoOn(Channel* channel, ssize_t result, int milliseconds) {
  if (result >= 0 || errno == EINTR) return true;
  if (errno != EAGAIN) return false;
  const int ready = channel->wait(milliseconds);
  if (ready == 0) errno = ETIMEDOUT;
  return ready > 0 || (ready < 0 && errno == EINTR);
}

// Drops what has been sent from the front of the parts.
static std::span<iovec> behind(std::span<iovec> parts, std::size_t sent) {
  while (!parts.empty() && sent >= parts.front().iov_len) {
    sent -= parts.front().iov_len;
    parts = parts.subspan(1);
  }
  if (parts.empty()) return parts;
  parts.front().iov_base = static_cast<char*>(parts.front().iov_base) + sent;
  parts.front().iov_len -= sent;
  return parts;
}

bool sendAll(Channel* channel, std::span<iovec> parts, bool more, int milliseconds) {
  for (parts = behind(parts, 0); !parts.empty();) {
    const ssize_t sent = channel->send(parts, more);
    if (!mayGoOn(channel, sent, milliseconds)) return false;
    if (sent > 0) parts = behind(parts, static_cast<std::size_t>(sent));
  }
  return true;
}

bool sendWholeFile(Channel* channel, int file, off_t offset, std::size_t count,
                   int milliseconds) {
  while (count > 0) {
    const ssize_t sent = channel->sendFile(file, offset, count);
    if (sent == 0) errno = ENODATA;
    if (sent == 0 || !mayGoOn(channel, sent, milliseconds)) return false;
    if (sent < 0) continue;
    offset += sent;
    count -= static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace host
