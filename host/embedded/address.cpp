#include "embedded/address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string_view>

namespace host {

std::string addressText(const sockaddr_storage& address) {
  constexpr std::string_view kMapped = "::ffff:";
  const void* place = &address;
  const bool v4 = address.ss_family == AF_INET;
  const void* binary = &static_cast<const sockaddr_in*>(place)->sin_addr;
  if (!v4) binary = &static_cast<const sockaddr_in6*>(place)->sin6_addr;
  char text[INET6_ADDRSTRLEN] = "";
  (void)inet_ntop(v4 ? AF_INET : AF_INET6, binary, text, sizeof(text));
  std::string_view shown = text;
  const bool mapped = shown.starts_with(kMapped) && shown.find('.') != shown.npos;
  if (mapped) shown.remove_prefix(kMapped.size());
  return std::string(shown);
}

int portOf(const sockaddr_storage& address) {
  const void* place = &address;
  if (address.ss_family == AF_INET) {
    return ntohs(static_cast<const sockaddr_in*>(place)->sin_port);
  }
  if (address.ss_family != AF_INET6) return -1;
  return ntohs(static_cast<const sockaddr_in6*>(place)->sin6_port);
}

}  // namespace host
