#include "support/scripted_backend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "context/sockets.h"

// The protocol in this file's own words: a test must not borrow the numbers and
// the byte order that it is to check.
constexpr std::int32_t kPing = 12;
constexpr std::int32_t kGetProps = 13;
constexpr std::int32_t kPutProps = 14;
constexpr std::size_t kFrameHead = 8;  // command, length

using Kind = ScriptStep::Kind;

std::string word(std::int32_t number) {
  const auto bits = static_cast<std::uint32_t>(number);
  std::string bytes(4, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>(bits >> (24U - 8U * static_cast<unsigned>(i)));
  return bytes;
}

static std::uint32_t numberAt(std::string_view bytes, std::size_t position) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < 4; ++i)
    number = number << 8U | static_cast<unsigned char>(bytes[position + i]);
  return number;
}

std::string text(std::string_view bytes) {
  return word(static_cast<std::int32_t>(bytes.size())) + std::string(bytes);
}

ScriptStep expectConnect() {
  return {Kind::connect, 0, {}};
}
ScriptStep failConnect(std::int32_t error) {
  return {Kind::noConnect, error, {}};
}
ScriptStep expectBytes(std::string bytes) {
  return {Kind::bytes, 0, std::move(bytes)};
}
ScriptStep expectPing() {
  return expectBytes(word(kPing));
}
ScriptStep expectFrame(std::int32_t command) {
  return {Kind::frame, command, {}};
}
ScriptStep expectGetProps(std::string_view set) {
  return expectBytes(word(kGetProps) + text(set));
}
ScriptStep putBytes(std::string bytes) {
  return {Kind::put, 0, std::move(bytes)};
}
ScriptStep putProps(std::string_view properties) {
  return put(kPutProps, text(properties));
}
ScriptStep hangUp() {
  return {Kind::hangUp, 0, {}};
}
ScriptStep failSend(std::int32_t error) {
  return {Kind::noSend, error, {}};
}
ScriptStep failRecv(std::int32_t error) {
  return {Kind::noRecv, error, {}};
}
ScriptStep expectClose(std::int32_t sock) {
  return {Kind::close, sock, {}};
}

static std::string shown(std::string_view bytes) {
  return testing::PrintToString(std::string(bytes.substr(0, 200)));
}

ScriptedBackend::ScriptedBackend(std::vector<ScriptStep> script)
    : script_(std::move(script)) {}

static ScriptedBackend* backendOf(vesk_request* req) {
  return static_cast<ScriptedBackend*>(req->sn);
}

void ScriptedBackend::attach(vesk_request* req) {
  req->sn = this;
  req->connect = onConnect;
  req->closeSocket = onClose;
  req->send = onSend;
  req->recv = onRecv;
  req->peek = [](vesk_request*, std::int32_t) { return kIdleQuiet; };
}

bool ScriptedBackend::at(Kind kind) const {
  return step_ < script_.size() && script_[step_].kind == kind;
}

std::string ScriptedBackend::describeStep() const {
  if (step_ >= script_.size()) return "the end of the script";
  constexpr const char* kNames[] = {
      "connect", "failing connect", "bytes",        "frame", "put",
      "hang up", "failing send",    "failing recv", "close"};
  const ScriptStep& step = script_[step_];
  return "step " + std::to_string(step_ + 1) + ": " +
         kNames[static_cast<std::size_t>(step.kind)] + " " + std::to_string(step.number) +
         " " + shown(step.bytes) + ", so far " + std::to_string(given_) + " read, " +
         shown(received_) + " came";
}

void ScriptedBackend::differ(const std::string& what) {
  gone_ = true;
  ADD_FAILURE() << "expected " << describeStep() << "\n     came " << what;
}

bool ScriptedBackend::finished() const {
  if (step_ == script_.size()) return true;
  ADD_FAILURE() << "still waiting for " << describeStep();
  return false;
}

int ScriptedBackend::openSockets() const {
  return static_cast<int>(
      std::count_if(sockets_.begin(), sockets_.end(),
                    [](const auto& each) { return each.second.open; }));
}

bool ScriptedBackend::isUsable(std::int32_t sock) const {
  const auto found = sockets_.find(sock);
  const bool usable = found != sockets_.end() && found->second.open;
  if (!usable) ADD_FAILURE() << "socket " << sock << " is used, but it is not open";
  return usable;
}

// Plays a step that says that this operation fails.
bool ScriptedBackend::failsAs(Kind kind, vesk_request* req) {
  if (gone_ || !at(kind)) return false;
  req->lastError = script_[step_++].number;
  return true;
}

std::int32_t ScriptedBackend::onConnect(vesk_request* req,
                                        const sockaddr_in* /*address*/) {
  ScriptedBackend* self = backendOf(req);
  ++self->connects;
  req->lastError = 0;
  if (self->failsAs(Kind::noConnect, req)) return -1;
  const bool implied =
      self->at(Kind::bytes) && self->script_[self->step_].bytes == word(kPing);
  if (!self->gone_ && !implied && !self->at(Kind::connect)) self->differ("a connect");
  if (self->gone_) {
    req->lastError = ECONNREFUSED;
    return -1;
  }
  if (!implied) ++self->step_;
  const auto sock = kFirstSocket + static_cast<std::int32_t>(self->sockets_.size());
  self->sockets_[sock] = {true, false};
  return sock;
}

void ScriptedBackend::onClose(vesk_request* req, std::int32_t sock) {
  ScriptedBackend* self = backendOf(req);
  if (!self->isUsable(sock)) return;
  self->sockets_[sock].open = false;
  if (self->gone_ || self->step_ == self->script_.size()) return;
  const ScriptStep& step = self->script_[self->step_];
  const bool expected =
      step.kind == Kind::close && (step.number == 0 || step.number == sock);
  if (!expected) self->differ("a close of socket " + std::to_string(sock));
  if (expected) ++self->step_;
}

std::int32_t ScriptedBackend::onSend(vesk_request* req, std::int32_t sock,
                                     const void* buffer, std::int32_t length) {
  ScriptedBackend* self = backendOf(req);
  ++self->sends;
  req->lastError = 0;
  if (length <= 0) return 0;
  if (!self->isUsable(sock) || self->gone_ || self->sockets_[sock].hungUp) {
    req->lastError = EPIPE;
    return -1;
  }
  const auto count = static_cast<std::size_t>(std::min(length, self->piece));
  return self->acceptSend(req, {static_cast<const char*>(buffer), count});
}

std::int32_t ScriptedBackend::acceptSend(vesk_request* req, std::string_view bytes) {
  if (failsAs(Kind::noSend, req)) return -1;
  const std::string all = received_ + std::string(bytes);
  if (at(Kind::frame)) {
    matchFrame(all);
  } else if (at(Kind::bytes) && script_[step_].bytes.starts_with(all)) {
    received_ = all;
    if (all != script_[step_].bytes) return static_cast<std::int32_t>(bytes.size());
    received_.clear();
    ++step_;
  } else if (!at(Kind::hangUp)) {
    differ("sent " + shown(bytes));
  }
  if (!gone_) return static_cast<std::int32_t>(bytes.size());
  req->lastError = EPIPE;
  return -1;
}

void ScriptedBackend::matchFrame(std::string_view all) {
  const auto command = static_cast<std::uint32_t>(script_[step_].number);
  const bool known = all.size() >= kFrameHead;
  const std::size_t size = known ? kFrameHead + numberAt(all, 4) : all.size() + 1;
  if ((known && numberAt(all, 0) != command) || all.size() > size) {
    differ("sent " + shown(all));
    return;
  }
  received_ = all;
  if (all.size() < size) return;
  lastFrame_.swap(received_);
  received_.clear();
  ++step_;
}

std::int32_t ScriptedBackend::onRecv(vesk_request* req, std::int32_t sock, void* buffer,
                                     std::int32_t length, veskProxy* /*proxy*/) {
  ScriptedBackend* self = backendOf(req);
  ++self->recvs;
  req->lastError = 0;
  if (length <= 0 || !self->isUsable(sock) || self->sockets_[sock].hungUp) return 0;
  if (self->failsAs(Kind::noRecv, req)) return -1;
  if (self->at(Kind::hangUp) && !self->gone_) {
    ++self->step_;
    self->sockets_[sock].hungUp = true;
    return 0;
  }
  return self->giveBytes(static_cast<char*>(buffer), length);
}

std::int32_t ScriptedBackend::giveBytes(char* buffer, std::int32_t length) {
  std::int32_t count = 0;
  while (count < std::min(length, piece) && !gone_ && at(Kind::put)) {
    const std::string& bytes = script_[step_].bytes;
    buffer[count++] = bytes[given_++];
    if (given_ < bytes.size()) continue;
    given_ = 0;
    ++step_;
  }
  if (count == 0 && !gone_) differ("a read of " + std::to_string(length) + " bytes");
  return count;
}
