// Who listens on a port where a Vesk server was expected.
//
// Threads: any. Failure: an empty text, when nothing can be told. Units: milliseconds.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace ctl {

// What the first bytes of an answer tell, as `answered "HTTP": not a Vesk port`; empty
// when they may be a Vesk server's.
[[nodiscard]] std::string judgeFirstBytes(std::string_view bytes);

// Addresses a listener in other protocols, once it was silent when it was addressed as a
// Vesk server: the first bytes that come, or nothing. Each protocol gets so long.
[[nodiscard]] std::string tryOtherProtocols(const sockaddr_in& address,
                                            std::int32_t limit);

}  // namespace ctl
