#include "backend/wire/exchange.h"

#include "backend/wire/bytes.h"
#include "backend/wire/protocol.h"

namespace backend {

// Above this, gathering more would cost memory and no longer save calls.
constexpr std::size_t kFlushAbove{128U << 10U};

Exchange::Exchange(Connection& connection, ReplyTail tail)
    : connection_(connection), tail_(tail) {}

void Exchange::flushWhenLarge() {
  if (connection_.out.size() > kFlushAbove) flush();
}

void Exchange::putStatus(int code, std::string_view reason) {
  appendWord(connection_.out, PROXY_PUT_STATUS);
  appendWord(connection_.out, code);
  appendText(connection_.out, reason);
}

void Exchange::putHeaderLines(std::string_view lines) {
  appendWord(connection_.out, PROXY_PUT_HEADER);
  appendText(connection_.out, lines);
}

void Exchange::putHeader(std::string_view name, std::string_view value) {
  appendWord(connection_.out, PROXY_PUT_HEADER_VALUE);
  appendText(connection_.out, name);
  appendText(connection_.out, value);
}

void Exchange::putBody(std::string_view block) {
  appendWord(connection_.out, PROXY_PUT_CLIENT);
  appendText(connection_.out, block);
  flushWhenLarge();
}

void Exchange::setAttribute(std::string_view name, std::string_view value) {
  appendWord(connection_.out, PROXY_SET_ATTRIBUTE);
  appendText(connection_.out, name);
  appendText(connection_.out, value);
  flushWhenLarge();
}

// A question takes along all that has gathered: the peer answers in the order in
// which it reads, and this side waits from here on.
std::string Exchange::askHeader(std::string_view name) {
  appendWord(connection_.out, PROXY_GET_HEADER);
  appendText(connection_.out, name);
  flush();
  return connection_.readText(kMaxAnswer);
}

std::string Exchange::askRealPath(std::string_view path) {
  appendWord(connection_.out, PROXY_GET_REALPATH);
  appendText(connection_.out, path);
  flush();
  return connection_.readText(kMaxAnswer);
}

// A count beyond what was asked means that the two sides no longer speak of the
// same body: whatever follows can't be trusted.
std::int32_t Exchange::askData(std::int32_t wanted, std::string& block) {
  appendWord(connection_.out, PROXY_GET_DATA);
  appendWord(connection_.out, wanted);
  flush();
  const std::int32_t command = connection_.readWord();
  if (command != PROXY_PUT_DATA) {
    throw ProtocolError("command " + std::to_string(command) +
                        " in answer to PROXY_GET_DATA");
  }
  const std::int32_t count = connection_.readWord();
  if (count < -1 || count > wanted || count > kMaxDataFrame) {
    throw ProtocolError("PROXY_PUT_DATA of " + std::to_string(count) + " bytes, asked " +
                        std::to_string(wanted));
  }
  block.clear();
  if (count > 0) block = connection_.readBlock(static_cast<std::size_t>(count));
  return count;
}

void Exchange::putTail() {
  if (tail_.loadValue) {
    appendWord(connection_.out, PROXY_PUT_LOAD_VALUE);
    appendWord(connection_.out, static_cast<std::int32_t>(*tail_.loadValue));
  }
  if (!tail_.clusterSequence) return;
  appendWord(connection_.out, PROXY_PUT_CLUSTER_SEQ);
  appendWord(connection_.out, *tail_.clusterSequence);
}

void Exchange::finish() {
  putTail();
  appendWord(connection_.out, PROXY_FINISH);
  flush();
}

// Nobody reads on behind these: the peer closes, and so does this side.
void Exchange::busy() {
  appendWord(connection_.out, PROXY_BUSY);
  flush();
  throw BrokenOff("answered that it is busy");
}

void Exchange::breakOff(bool reset) {
  flush();
  if (reset) connection_.resetOnClose();
  throw BrokenOff("broke the connection off on request");
}

void Exchange::raw(std::string_view bytes) {
  connection_.out.append(bytes);
}

void Exchange::flush() {
  connection_.flush();
}

}  // namespace backend
