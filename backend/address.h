// Addresses as text: "ip:port", where ip is a dotted IPv4 address.
//
// Pure functions but for localNameOf: any thread, no lock. Ownership: results
// are the caller's; the socket stays whose it is.
// Errors: an address that can't be told is "?".
#pragma once

#include <netinet/in.h>

#include <string>
#include <string_view>

namespace backend {

constexpr int kMaxPort = 65535;

[[nodiscard]] bool isDottedAddress(const std::string& text);

// A dotted address, a colon and a port from 1 up.
[[nodiscard]] bool isServerName(std::string_view text);

[[nodiscard]] std::string nameOf(const sockaddr_in& address);

// The address of this end of a connection.
[[nodiscard]] std::string localNameOf(int fd);

}  // namespace backend
