#include "backend/listener.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace backend {

// Calls of the socket interface take every address family as this record.
static sockaddr* generic(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

static std::system_error failure(const std::string& what) {
  return {errno, std::generic_category(), what};
}

// Closes the socket again and throws, with the reason of the failed call.
[[noreturn]] static void giveUp(int fd, const std::string& what) {
  const std::system_error error = failure(what);
  close(fd);
  throw error;
}

Listener openListener(const std::string& host, int port) {
  const std::string name = host + ":" + std::to_string(port);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw failure("socket");
  const int on = 1;
  (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(fd, generic(address), sizeof(address)) != 0) giveUp(fd, "bind " + name);
  if (listen(fd, SOMAXCONN) != 0) giveUp(fd, "listen " + name);
  socklen_t length = sizeof(address);
  if (getsockname(fd, generic(address), &length) != 0) giveUp(fd, "getsockname");
  return {fd, ntohs(address.sin_port)};
}

std::string nameOf(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = "?";
  (void)inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string localNameOf(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (getsockname(fd, generic(address), &length) != 0) return "?";
  return nameOf(address);
}

}  // namespace backend
