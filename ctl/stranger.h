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

// Says a browser's word to a listener that was silent when it was addressed as a Vesk
// server, and gives the first bytes that come within the limit, if any do.
[[nodiscard]] std::string greetAsBrowser(const sockaddr_in& address, std::int32_t limit);

}  // namespace ctl
