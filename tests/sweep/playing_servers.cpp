#include "playing_servers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "proxy/wire.h"

Answer& Answer::word(std::int32_t number) {
  words.push_back(bytes.size());
  bytes.append(4, '\0');
  putWord(&bytes[bytes.size() - 4], number);
  return *this;
}

Answer& Answer::text(const std::string& text) {
  word(static_cast<std::int32_t>(text.size()));
  bytes += text;
  return *this;
}

PlayingServers::PlayingServers(int count) : answers_(static_cast<std::size_t>(count)) {
  for (int i = 0; i < count; ++i) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener, generic, size) | listen(listener, 16), 0);
    EXPECT_EQ(getsockname(listener, generic, &size), 0);
    listeners_.push_back(listener);
    ports_.push_back(ntohs(address.sin_port));
  }
  thread_ = std::thread([this] { run(); });
}

PlayingServers::~PlayingServers() {
  stopping_ = true;
  thread_.join();
  for (const int listener : listeners_) (void)close(listener);
  for (const Connection& each : connections_) (void)close(each.sock);
}

std::string PlayingServers::name(std::size_t server) const {
  return "127.0.0.1:" + std::to_string(ports_[server]);
}

void PlayingServers::answer(std::size_t server, const std::string& question,
                            Answer answer) {
  const std::lock_guard guard(lock_);
  answers_[server][question] = std::move(answer);
}

void PlayingServers::arm(const WireFault& fault) {
  const std::lock_guard guard(lock_);
  fault_ = fault;
  bytes_ = words_ = 0;
}

void PlayingServers::accept(std::size_t server) {
  const int sock = ::accept(listeners_[server], nullptr, nullptr);
  if (sock >= 0) connections_.push_back({sock, server, ""});
}

// What of the received bytes is one whole frame, or an answer, which begins with its
// length; 0 while there is none. No answer is as long as a command is high.
static std::size_t frameSize(const std::string& received) {
  constexpr std::int32_t kFrames[] = {PROXY_GET_PROPS, PROXY_SERVICE_40, PROXY_PUT_DATA};
  if (received.size() < 4) return 0;
  const std::int32_t first = getWord(received.data());
  if (first == PROXY_PING) return 4;
  const bool isFrame = std::ranges::find(kFrames, first) != std::end(kFrames);
  const std::size_t head = isFrame ? 8 : 4;
  if (received.size() < head) return 0;
  const std::int32_t length = getWord(received.data() + head - 4);
  const std::size_t size = head + static_cast<std::size_t>(std::max(length, 0));
  return received.size() < size ? 0 : size;
}

// Sends with what is wrong at the moment: false when the connection is to end.
bool PlayingServers::sendAnswer(int sock, Answer answer) {
  bool goOn = true;
  for (const std::size_t at : answer.words) {
    if (words_++ != fault_.replaceWord) continue;
    putWord(&answer.bytes[at], fault_.replacement);
    goOn = false;  // the connector may wait for what doesn't come
  }
  const std::int64_t left = fault_.cutAfter - bytes_;
  bytes_ += static_cast<std::int64_t>(answer.bytes.size());
  if (fault_.cutAfter >= 0 && left >= 0 && bytes_ > fault_.cutAfter) {
    answer.bytes.resize(static_cast<std::size_t>(left));
    goOn = false;
  }
  (void)send(sock, answer.bytes.data(), answer.bytes.size(), MSG_NOSIGNAL);
  return goOn;
}

bool PlayingServers::serve(Connection* connection) {
  char bytes[4096];
  const ssize_t count = recv(connection->sock, bytes, sizeof bytes, 0);
  if (count <= 0) return false;
  connection->received.append(bytes, static_cast<std::size_t>(count));
  const std::lock_guard guard(lock_);
  while (const std::size_t size = frameSize(connection->received)) {
    const std::string frame = connection->received.substr(0, size);
    connection->received.erase(0, size);
    const std::int32_t command = getWord(frame.data());
    if (command != PROXY_GET_PROPS && command != PROXY_SERVICE_40) continue;
    const auto& own = answers_[connection->server];
    const auto found =
        own.find(command == PROXY_SERVICE_40 ? "service" : frame.substr(8));
    if (found == own.end() || !sendAnswer(connection->sock, found->second)) return false;
  }
  return true;
}

void PlayingServers::run() {
  while (!stopping_) {
    std::vector<pollfd> waits;
    for (const int listener : listeners_) waits.push_back({listener, POLLIN, 0});
    for (const Connection& each : connections_) waits.push_back({each.sock, POLLIN, 0});
    constexpr int kLookAtStopping = 20;  // milliseconds
    if (poll(waits.data(), waits.size(), kLookAtStopping) <= 0) continue;
    for (std::size_t i = connections_.size(); i-- > 0;) {
      if (!waits[listeners_.size() + i].revents || serve(&connections_[i])) continue;
      (void)close(connections_[i].sock);
      connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    for (std::size_t i = 0; i < listeners_.size(); ++i)
      if (waits[i].revents) accept(i);
  }
}
