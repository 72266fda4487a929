// The listening socket and the names of addresses.
#pragma once

#include <netinet/in.h>

#include <string>

namespace backend {

struct Listener {
  int fd;    // non-blocking; whoever opened it closes it
  int port;  // the real one, also when 0 was asked for
};

// Throws std::system_error when the address can't be had.
[[nodiscard]] Listener openListener(const std::string& host, int port);

// The address as ip:port.
[[nodiscard]] std::string nameOf(const sockaddr_in& address);

// The address of this end of a connection, as ip:port.
[[nodiscard]] std::string localNameOf(int fd);

}  // namespace backend
