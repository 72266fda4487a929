#include "embedded/listener.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace host {

using Endpoint = boost::asio::ip::tcp::endpoint;

constexpr long kMicroseconds = 1000;

static Endpoint endpointOf(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  std::string address = text.substr(0, colon);
  if (address.front() == '[') address = address.substr(1, address.size() - 2);
  const auto port = static_cast<std::uint16_t>(std::atoi(text.c_str() + colon + 1));
  return {boost::asio::ip::make_address(address), port};
}

static bool set(int socket, int level, int name, int value) {
  return setsockopt(socket, level, name, &value, sizeof(value)) == 0;
}

static bool setLimit(int socket, int name, timeval limit) {
  return setsockopt(socket, SOL_SOCKET, name, &limit, sizeof(limit)) == 0;
}

// Sockets of clients begin with what is set here, so that none of it costs a call
// for each of them.
static bool prepare(int socket) {
  return set(socket, IPPROTO_TCP, TCP_NODELAY, 1) &&
         setLimit(socket, SO_RCVTIMEO, {0, kBriefWait * kMicroseconds});
}

void prepareClient(int socket) {
  (void)prepare(socket);  // a client that is gone shows at the next call
}

static Endpoint localEndpoint(int socket) {
  Endpoint endpoint;
  auto size = static_cast<socklen_t>(endpoint.capacity());
  if (getsockname(socket, endpoint.data(), &size) == 0) endpoint.resize(size);
  return endpoint;
}

// The service manager's socket of that address, or -1.
static int passedSocket(const Endpoint& wanted) {
  const int count = sd_listen_fds(0);
  for (int i = 0; i < count; ++i) {
    const int socket = SD_LISTEN_FDS_START + i;
    if (localEndpoint(socket) == wanted) return socket;
  }
  return -1;
}

static int bindSocket(const Endpoint& endpoint) {
  const bool v6 = endpoint.address().is_v6();
  const int made = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (made < 0) return -1;
  // Else the address of all of one family would take the other's with it.
  const bool bound =
      set(made, SOL_SOCKET, SO_REUSEADDR, 1) &&
      (!v6 || set(made, IPPROTO_IPV6, IPV6_V6ONLY, 1)) &&
      bind(made, endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0;
  if (bound) return made;
  const int reason = errno;
  (void)close(made);
  errno = reason;
  return -1;
}

std::string openListener(const ListenLine& line, Listener* listener) {
  const Endpoint wanted = endpointOf(line.address);
  listener->socket = passedSocket(wanted);
  listener->passed = listener->socket >= 0;
  if (listener->socket < 0) listener->socket = bindSocket(wanted);
  if (listener->socket < 0 || !prepare(listener->socket)) {
    return "can't listen on " + line.address + ": " + std::strerror(errno);
  }
  const int port = localEndpoint(listener->socket).port();
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
    if (claimed) continue;
    std::ostringstream text;
    text << localEndpoint(socket);
    return text.str();
  }
  return {};
}

}  // namespace host
