#include "ctl/page.h"

#include <cerrno>
#include <cstring>

#include "context/clock.h"
#include "maptable/vesk_session.h"
#include "proxy/vesk_proxy.h"

namespace ctl {

Page::Page(const Limits& limits, bool verbose, const BodyWishes& wished)
    : ToolRequest(limits, verbose), wishes(wished) {}

Page::~Page() {
  forgetAnswer();
}

void Page::forgetAnswer() {
  restart();
  vesk_request* req = record();
  if (req->sessionId) req->free(req, req->sessionId);
  req->sessionId = nullptr;
  status = 0;
  reason.clear();
  headers.clear();
  bodyBytes = 0;
  body.clear();
  headWritten = false;
}

bool Page::fetch(veskProxy* server) {
  constexpr double kMicrosPerMilli = 1000.0;
  forgetAnswer();
  vesk_request* req = record();
  req->sessionId = getSessionId(req);
  const std::int64_t begin = monotonicMicros();
  const bool whole = server->handleRequest(req, server, nullptr, nullptr) == 0;
  millis = static_cast<double>(monotonicMicros() - begin) / kMicrosPerMilli -
           seen().connectMillis;
  // A page without a body has its head all the same.
  if (whole && !headWritten) (void)writeHead();
  return whole && writeFailure.empty();
}

void Page::onStatus(std::int32_t code, std::string_view text) noexcept {
  status = code;
  reason = text;
}

void Page::onHeader(std::string_view name, std::string_view value) noexcept {
  if (headers.size() < kMostHeaders) headers.emplace_back(name, value);
}

bool Page::write(std::string_view bytes) {
  if (!wishes.file) return true;
  if (std::fwrite(bytes.data(), 1, bytes.size(), wishes.file) == bytes.size() &&
      std::fflush(wishes.file) == 0) {
    return true;
  }
  writeFailure = std::strerror(errno);
  return false;
}

// Values of several lines stand in one: their line ends are made visible.
bool Page::writeHead() {
  headWritten = true;
  if (!wishes.withHead) return true;
  std::string head = std::to_string(status) + " " + visible(reason) + "\n";
  if (status == 0) head = "no status\n";
  for (const auto& [name, value] : headers)
    head += visible(name) + ": " + visible(value, kMostKept) + "\n";
  return write(head + "\n");
}

bool Page::onBody(std::string_view bytes) noexcept {
  bodyBytes += static_cast<std::int64_t>(bytes.size());
  if (!headWritten && !writeHead()) return false;
  if (wishes.keep && body.size() < kMostKept)
    body += bytes.substr(0, kMostKept - body.size());
  return write(wishes.isTerminal ? terminal.pass(bytes) : std::string(bytes));
}

}  // namespace ctl
