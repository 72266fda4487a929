// The server's side of one service conversation, command by command.
//
// Commands without a reply only gather; they leave when a reply is waited for,
// with finish, with flush, or when kFlushAbove bytes have gathered.
//
// Ownership: the connection is the caller's and outlives the exchange; what is
// put is copied to its buffer.
// Threads: that of the connection. What asks, flushes or ends may block.
// Errors: ConnectionLost, and ProtocolError when a reply isn't what was asked.
// Units: bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "backend/wire/connection.h"

namespace backend {

// What rides on the end of every reply.
struct ReplyTail {
  std::optional<std::int32_t> clusterSequence;
  std::optional<std::uint32_t> loadValue;
};

class Exchange {
 public:
  Exchange(Connection& connection, ReplyTail tail);

  void putStatus(int code, std::string_view reason);

  // Lines of name, colon, blank, value, each ended by CR LF.
  void putHeaderLines(std::string_view lines);
  void putHeader(std::string_view name, std::string_view value);
  void putBody(std::string_view block);
  void setAttribute(std::string_view name, std::string_view value);

  // Each asks and waits for the answer; empty when there is none.
  [[nodiscard]] std::string askHeader(std::string_view name);
  [[nodiscard]] std::string askRealPath(std::string_view path);

  // Asks for the next `wanted` bytes of the request body and puts what comes
  // into `block`. Returns the count: 0 at the end of the body, -1 when reading
  // from the browser broke off.
  [[nodiscard]] std::int32_t askData(std::int32_t wanted, std::string& block);

  // Sends what rides on the reply. Part of finish.
  void putTail();

  // Ends the conversation well; the connection stays open.
  void finish();

  // Refuses the request: the web server's side drops the connection.
  [[noreturn]] void busy();

  // Ends the connection in the middle of whatever was sent.
  [[noreturn]] void breakOff(bool reset);

  // Puts bytes that needn't be whole commands.
  void raw(std::string_view bytes);

  void flush();

 private:
  void flushWhenLarge();

  Connection& connection_;
  ReplyTail tail_;
};

}  // namespace backend
