// A channel with TLS. The handshake happens within the first receive.
//
// Ownership, threads and errors: as of every Channel. EPROTO stands for what the
// library found wrong; failure() tells it.
#pragma once

#include <memory>

#include "http/channel.h"
#include "http/tls_context.h"

namespace host {

// Takes a connected socket. Null when memory is short; the socket is then closed.
[[nodiscard]] std::unique_ptr<Channel> openTlsChannel(int socket,
                                                      const TlsContext& context);

}  // namespace host
