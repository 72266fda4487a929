// The pages that answer with a given size, status or delay.

#include <algorithm>

#include "backend/pages/reply.h"
#include "backend/text.h"

namespace backend {

constexpr std::int64_t kMaxBytes = std::int64_t{1} << 34;  // 16 GiB
constexpr std::int64_t kMaxBlocks = 1000000;
constexpr std::int64_t kMaxBlockSize{1 << 20};
constexpr std::size_t kBlock{64U << 10U};

// A prime, so that a block that is lost, doubled or shifted shows in the bytes.
constexpr std::size_t kPatternLength = 251;

// The bytes at `offset` and behind it: each is its position modulo 251.
static std::string_view patternAt(const std::string& pattern, std::int64_t offset,
                                  std::int64_t size) {
  const auto start = static_cast<std::size_t>(offset) % kPatternLength;
  return std::string_view(pattern).substr(start, static_cast<std::size_t>(size));
}

static std::string patternOf(std::size_t size) {
  std::string pattern(size + kPatternLength, '\0');
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = static_cast<char>(i % kPatternLength);
  }
  return pattern;
}

// bytes?n=: that many bytes, each its position modulo 251.
void showBytes(const PageCall& call) {
  const std::int64_t total = numberOf(call.query, "n", {0, kMaxBytes, 1024});
  putHead(call, {200, "application/octet-stream", total});
  constexpr auto kPiece = static_cast<std::int64_t>(kBlock);
  const std::string pattern =
      patternOf(static_cast<std::size_t>(std::min(total, kPiece)));
  for (std::int64_t sent = 0; sent < total && !call.head; sent += kPiece) {
    putBlock(call, patternAt(pattern, sent, std::min(total - sent, kPiece)));
  }
  call.exchange.finish();
}

// status?code=: a page with that status; one with 3xx leads to index.jsp, or
// where `location` says.
void showStatus(const PageCall& call) {
  const auto code = static_cast<int>(numberOf(call.query, "code", {200, 599, 200}));
  const std::string location(valueOf(call.query, "location", "index.jsp"));
  if (!isHeaderSafe(location)) throw BadRequest("'location' can't stand in a header");
  const bool leads = code / 100 == 3 && code != 304;
  if (leads) call.exchange.putHeader("Location", location);
  sendMessage(call, code, "The status that was asked for.");
}

// sleep?ms=: answers after that time.
void showSleep(const PageCall& call) {
  const std::int64_t time = numberOf(call.query, "ms", {0, kMaxPause, 1000});
  pauseFor(call, time);
  sendReply(call, 200, "text/plain; charset=utf-8",
            "slept " + std::to_string(time) + " ms\n");
}

// stream?blocks=&size=&ms=: that many blocks of that size with that pause
// between, each sent at once, with no length told before.
void showStream(const PageCall& call) {
  const std::int64_t blocks = numberOf(call.query, "blocks", {0, kMaxBlocks, 10});
  const std::int64_t size = numberOf(call.query, "size", {0, kMaxBlockSize, 1024});
  const std::int64_t time = numberOf(call.query, "ms", {0, kMaxPause, 100});
  putHead(call, {200, "application/octet-stream", std::nullopt});
  const std::string pattern = patternOf(static_cast<std::size_t>(size));
  for (std::int64_t i = 0; i < blocks && !call.head; ++i) {
    if (i > 0) pauseFor(call, time);
    putBlock(call, patternAt(pattern, i * size, size));
    call.exchange.flush();
  }
  call.exchange.finish();
}

}  // namespace backend
