// The connector's own failure codes and their texts.
//
// `lastError` of a request holds 0, a positive errno value, or one of these.
#pragma once

#include <cstdint>

enum : std::int32_t {
  EVESK_BUSY = -10,         // the server sent PROXY_BUSY
  EVESK_PROTOCOL = -11,     // the server sent a command that is not valid here
  EVESK_CLIENT_DOWN = -12,  // writing to the browser failed
};

// A text for a value of lastError. The general form lies in a buffer of the
// calling thread: use it before this thread's next call.
[[nodiscard]] const char* describeError(std::int32_t code);

// The same for what has failed for certain. A server that breaks the protocol may leave
// lastError at 0, which is no success.
[[nodiscard]] const char* describeFailure(std::int32_t code);
