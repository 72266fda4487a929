#include "embedded/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "embedded/address.h"

namespace host {

constexpr long kMicroseconds = 1000;

static sockaddr_storage addressOf(const std::string& text) {
  sockaddr_storage storage{};
  void* place = &storage;
  const std::size_t colon = text.rfind(':');
  const auto port = static_cast<std::uint16_t>(std::atoi(text.c_str() + colon + 1));
  if (text.front() != '[') {
    auto* v4 = static_cast<sockaddr_in*>(place);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    (void)inet_pton(AF_INET, text.substr(0, colon).c_str(), &v4->sin_addr);
    return storage;
  }
  auto* v6 = static_cast<sockaddr_in6*>(place);
  v6->sin6_family = AF_INET6;
  v6->sin6_port = htons(port);
  (void)inet_pton(AF_INET6, text.substr(1, colon - 2).c_str(), &v6->sin6_addr);
  return storage;
}

static socklen_t sizeOf(const sockaddr_storage& address) {
  return address.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

static bool set(int socket, int level, int name, int value) {
  return setsockopt(socket, level, name, &value, sizeof(value)) == 0;
}

static bool setLimit(int socket, int name, timeval limit) {
  return setsockopt(socket, SOL_SOCKET, name, &limit, sizeof(limit)) == 0;
}

// Sockets of clients begin with what is set here, so that none of it costs a call
// for each of them.
static bool prepare(int socket, const Limits& limits) {
  return set(socket, IPPROTO_TCP, TCP_NODELAY, 1) &&
         setLimit(socket, SO_RCVTIMEO, {0, kBriefWait * kMicroseconds}) &&
         setLimit(socket, SO_SNDTIMEO, {limits.sendTimeout, 0});
}

static sockaddr_storage localAddress(int socket) {
  sockaddr_storage storage{};
  void* place = &storage;
  socklen_t size = sizeof(storage);
  (void)getsockname(socket, static_cast<sockaddr*>(place), &size);
  return storage;
}

static bool sameAddress(const sockaddr_storage& a, const sockaddr_storage& b) {
  return addressText(a) == addressText(b) && portOf(a) == portOf(b);
}

// The service manager's socket of that address, or -1.
static int passedSocket(const sockaddr_storage& address) {
  const int count = sd_listen_fds(0);
  for (int i = 0; i < count; ++i) {
    const int socket = SD_LISTEN_FDS_START + i;
    if (sameAddress(localAddress(socket), address)) return socket;
  }
  return -1;
}

static int bindSocket(const sockaddr_storage& address) {
  const int made = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (made < 0) return -1;
  const void* place = &address;
  const bool v6 = address.ss_family == AF_INET6;
  // Else the address of all of one family would take the other's with it.
  const bool bound =
      set(made, SOL_SOCKET, SO_REUSEADDR, 1) &&
      (!v6 || set(made, IPPROTO_IPV6, IPV6_V6ONLY, 1)) &&
      bind(made, static_cast<const sockaddr*>(place), sizeOf(address)) == 0;
  if (bound) return made;
  const int reason = errno;
  (void)close(made);
  errno = reason;
  return -1;
}

std::string openListener(const ListenLine& line, const Limits& limits,
                         Listener* listener) {
  const sockaddr_storage wanted = addressOf(line.address);
  listener->socket = passedSocket(wanted);
  if (listener->socket < 0) listener->socket = bindSocket(wanted);
  if (listener->socket < 0 || !prepare(listener->socket, limits)) {
    return "can't listen on " + line.address + ": " + std::strerror(errno);
  }
  const int port = portOf(localAddress(listener->socket));
  listener->local = {port, line.tls};
  listener->url = (line.tls ? "https://" : "http://") +
                  line.address.substr(0, line.address.rfind(':') + 1) +
                  std::to_string(port);
  return {};
}

std::string startListening(const Listener& listener) {
  if (listen(listener.socket, SOMAXCONN) == 0) return {};
  return "can't listen on " + listener.url + ": " + std::strerror(errno);
}

std::string unclaimedSocket(const std::vector<Listener>& listeners) {
  const int count = sd_listen_fds(0);
  for (int i = 0; i < count; ++i) {
    const int socket = SD_LISTEN_FDS_START + i;
    const bool claimed =
        std::any_of(listeners.begin(), listeners.end(),
                    [socket](const Listener& one) { return one.socket == socket; });
    const sockaddr_storage address = localAddress(socket);
    if (!claimed) return addressText(address) + ":" + std::to_string(portOf(address));
  }
  return {};
}

}  // namespace host
