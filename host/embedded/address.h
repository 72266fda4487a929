// Addresses of sockets. Pure functions: any thread, no lock.
#pragma once

#include <sys/socket.h>

#include <string>

namespace host {

// The address without its port; that of an IPv4 client on an IPv6 socket as IPv4.
[[nodiscard]] std::string addressText(const sockaddr_storage& address);

// The port, or -1 for another family than IPv4 and IPv6.
[[nodiscard]] int portOf(const sockaddr_storage& address);

}  // namespace host
