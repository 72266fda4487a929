// How a conversation ends badly. Each of these ends the connection, too.
#pragma once

#include <stdexcept>

namespace backend {

// The peer sent what the protocol doesn't allow. Logged, connection closed.
struct ProtocolError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The peer closed or the socket failed in the middle of a conversation.
struct ConnectionLost : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A page ends the connection on purpose; what was written has been flushed.
struct BrokenOff : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace backend
