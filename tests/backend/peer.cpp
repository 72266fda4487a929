#include "peer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "backend/bytes.h"
#include "backend/serve.h"
#include "backend/wire.h"

namespace backend_test {

std::string word(std::int32_t number) {
  std::string bytes;
  backend::appendWord(bytes, number);
  return bytes;
}

std::string text(std::string_view bytes) {
  return word(static_cast<std::int32_t>(bytes.size())) + std::string(bytes);
}

std::string blockOf(const BlockParts& parts) {
  std::string block;
  for (const auto& [name, value] : parts.attributes) {
    block += word(18) + text(name) + text(value);
  }
  std::map<std::string_view, std::string> values = {{"QUERY_STRING", parts.query},
                                                    {"REQUEST_METHOD", parts.method}};
  for (const backend::VariableRow& row : backend::kVariables) {
    block += word(row.id) + text(values[row.name]);
  }
  block += word(23) + text(parts.uri);
  for (const auto& [name, value] : parts.headers) {
    block += word(32) + text(name) + text(value);
  }
  if (!parts.sessionId.empty()) block += word(42) + text(parts.sessionId);
  return block + word(31);
}

std::string frameOf(const BlockParts& parts) {
  return word(39) + text(blockOf(parts));
}

backend::Options plainOptions() {
  const char* arguments[] = {"vesk-backend", "--listen=127.0.0.1:0", "--rep-id=A001",
                             "--buddies=B002,*"};
  backend::Options options{};
  EXPECT_TRUE(backend::parseOptions(std::ssize(arguments), arguments, options).run);
  return options;
}

Wire::Wire(int fd) : fd_(fd) {
  const timeval patience{20, 0};
  (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
}

Wire::~Wire() {
  close(fd_);
}

void Wire::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;  // the server has closed; what it said tells the test
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void Wire::end(int how) const {
  shutdown(fd_, how);
}

std::string Wire::receive(std::size_t size) const {
  std::string bytes(size, '\0');
  std::size_t filled = 0;
  for (ssize_t got = 1; got > 0 && filled < size;) {
    got = recv(fd_, bytes.data() + filled, size - filled, 0);
    EXPECT_FALSE(got < 0 && errno == EAGAIN) << "neither an answer nor an end";
    filled += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
  }
  return bytes.substr(0, filled);
}

// 0, which no server says on purpose, when the connection has ended.
static std::int32_t wordFrom(const Wire& wire) {
  const std::string bytes = wire.receive(4);
  return bytes.size() == 4 ? backend::wordAt(bytes.data()) : 0;
}

static std::string textFrom(const Wire& wire) {
  return wire.receive(static_cast<std::size_t>(std::max(wordFrom(wire), 0)));
}

static std::string nextFrame(Source& source, std::int32_t wanted) {
  const std::string block =
      source.body.substr(0, std::min(static_cast<std::size_t>(wanted), source.piece));
  source.body.erase(0, block.size());
  return word(16) + (block.empty() ? word(source.end) : text(block));
}

// The operands of each command that doesn't end a conversation: w is a word, t a
// text, and the rest is what a reply shows around the texts.
static const std::map<std::int32_t, std::string_view> kOperands = {
    {3, "t"},  {4, "t"},      {6, "wt\n"},      {7, "t"},  {8, "t"},
    {15, "w"}, {18, "t=t\n"}, {37, "t: t\r\n"}, {40, "w"}, {41, "w"}};

Reply Wire::reply(Source source) const {
  Reply reply;
  for (auto row = kOperands.begin();;) {
    const std::int32_t command = reply.commands.emplace_back(wordFrom(*this));
    reply.finished = command == backend::PROXY_FINISH;
    if ((row = kOperands.find(command)) == kOperands.end()) return reply;
    std::int32_t number = 0;
    std::string texts;
    for (const char kind : row->second) {
      if (kind == 'w') number = wordFrom(*this);
      if (kind != 'w') texts += kind == 't' ? textFrom(*this) : std::string(1, kind);
    }
    (command == backend::PROXY_PUT_CLIENT ? reply.body : reply.head) += texts;
    if (command == backend::PROXY_PUT_STATUS) reply.status = number;
    if (command == backend::PROXY_GET_DATA) send(nextFrame(source, number));
    if (command <= backend::PROXY_GET_REALPATH) send(text("<" + texts + ">"));
  }
}

std::pair<int, int> socketPair() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  return {ends[0], ends[1]};
}

Peer::Peer(backend::Options options, std::pair<int, int> ends)
    : Wire(ends.first), server(std::move(options)) {
  EXPECT_TRUE(server.connections.add(ends.second));
  thread_ = std::thread(
      [this, fd = ends.second] { backend::serveConnection(server, fd, "the test"); });
}

Peer::~Peer() {
  end(SHUT_RDWR);
  thread_.join();
}

}  // namespace backend_test
