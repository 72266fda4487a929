#include "http/channel.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
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
    if (wait == Wait::brief) block(true);
    return recv(socket_, to, size, wait == Wait::none ? MSG_DONTWAIT : 0);
  }

  ssize_t send(std::span<const iovec> parts, bool more) override {
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts.data());  // sendmsg writes nothing there
    message.msg_iovlen = parts.size();
    return awaitRoom(
        sendmsg(socket_, &message, MSG_DONTWAIT | MSG_NOSIGNAL | (more ? MSG_MORE : 0)));
  }

  // sendfile has no flag for it.
  ssize_t sendFile(int file, off_t offset, std::size_t count) override {
    block(false);
    return awaitRoom(sendfile(socket_, file, &offset, count));
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

  void leaveLoop() override {
    blocks_ = false;
    block(true);
  }

  bool holdsUnread() const override {
    char byte;
    return recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }

 private:
  void block(bool wanted) {
    int never = wanted ? 0 : 1;
    if (blocks_ != wanted && ioctl(socket_, FIONBIO, &never) == 0) blocks_ = wanted;
  }

  ssize_t awaitRoom(ssize_t sent) {
    if (sent < 0 && errno == EAGAIN) awaits_ = POLLOUT;
    return sent;
  }

  int socket_;
  bool blocks_ = true;
};

}  // namespace

std::unique_ptr<Channel> openPlainChannel(int socket) {
  std::unique_ptr<Channel> channel(new (std::nothrow) PlainChannel(socket));
  if (!channel) (void)close(socket);
  return channel;
}

std::int64_t unsentBytes(const Channel& channel) {
  int bytes = 0;
  return ioctl(channel.socket(), SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

static bool isTooSlow(const Channel& channel, SendPatience* response) {
  if (!isOver(response->patience, response->sent - unsentBytes(channel))) return false;
  response->met = "MinSendRate";
  return true;
}

// Waits for a client that takes nothing: whether to call again. A wait that a signal
// ends is begun anew, as is one in which the client has taken something: the system
// tells of room only when there is much of it.
static bool waitFor(Channel* channel, SendPatience* response) {
  Patience* patience = &response->patience;
  const std::int64_t begin = steadyMillis();
  const std::int64_t unsent = unsentBytes(*channel);
  const int ready = channel->wait(static_cast<int>(patience->limit));
  patience->waited += steadyMillis() - begin;
  const bool stuck = ready == 0 && unsentBytes(*channel) >= unsent;
  if (stuck) response->met = "SendTimeout";
  const bool failed = ready < 0 && errno != EINTR;
  return !stuck && !failed && !isTooSlow(*channel, response);
}

// After a call that gave `result`: whether to call again.
static bool mayGoOn(Channel* channel, ssize_t result, SendPatience* patience) {
  if (result > 0) patience->sent += result;
  if (result >= 0 || errno == EINTR) return true;
  return errno == EAGAIN && waitFor(channel, patience);
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

bool sendAll(Channel* channel, std::span<iovec> parts, bool more,
             SendPatience* patience) {
  for (parts = behind(parts, 0); !parts.empty();) {
    const ssize_t sent = channel->send(parts, more);
    if (!mayGoOn(channel, sent, patience)) return false;
    if (sent > 0) parts = behind(parts, static_cast<std::size_t>(sent));
  }
  return true;
}

bool sendWholeFile(Channel* channel, int file, off_t offset, std::size_t count,
                   SendPatience* patience) {
  while (count > 0) {
    const ssize_t sent = channel->sendFile(file, offset, count);
    if (sent == 0) errno = ENODATA;
    if (sent == 0 || !mayGoOn(channel, sent, patience)) return false;
    if (sent < 0) continue;
    offset += sent;
    count -= static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace host
