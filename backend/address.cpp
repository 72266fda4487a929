#include "backend/address.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include "backend/text.h"

namespace backend {

bool isDottedAddress(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool isServerName(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return false;
  if (!isDottedAddress(std::string(text.substr(0, colon)))) return false;
  const std::int64_t port = wholeNumber(text.substr(colon + 1)).value_or(0);
  return port >= 1 && port <= kMaxPort;
}

std::string nameOf(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = "?";
  (void)inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string localNameOf(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "?";
  return nameOf(address);
}

}  // namespace backend
