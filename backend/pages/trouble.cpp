// The pages that misbehave on purpose. With `only=REP-ID` in the query just the
// server of that name does, and all others answer as usual.

#include <algorithm>

#include "backend/pages/reply.h"
#include "backend/wire/bytes.h"
#include "backend/wire/protocol.h"

namespace backend {

constexpr std::int64_t kPromised = 2000;  // bytes that the broken reply announces
constexpr std::size_t kGiven = 1000;      // bytes of it that come

static void putPromise(const PageCall& call) {
  putHead(call, {200, "text/plain; charset=utf-8", kPromised});
}

static void putHalf(const PageCall& call) {
  putPromise(call);
  call.exchange.putBody(std::string(kGiven, '.'));
}

// Puts a block's command and length word, and of its bytes what `bytes` holds.
static void putOpenBlock(const PageCall& call, std::int32_t length,
                         std::string_view bytes) {
  std::string text;
  appendWord(text, PROXY_PUT_CLIENT);
  appendWord(text, length);
  call.exchange.raw(text.append(bytes));
}

static void putWord(const PageCall& call, std::int32_t word) {
  std::string text;
  appendWord(text, word);
  call.exchange.raw(text);
}

static void atStart(const PageCall&) {}

static void atWord(const PageCall& call) {
  call.exchange.raw(std::string_view("\0\0", 2));
}

static void atStatus(const PageCall& call) {
  call.exchange.putStatus(200, reasonOf(200));
}

static void atHeader(const PageCall& call) {
  atStatus(call);
  std::string text;
  appendWord(text, PROXY_PUT_HEADER);
  appendText(text, "Content-Type: text/plain\r\n");
  call.exchange.raw(std::string_view(text).substr(0, text.size() / 2));
}

static void atBody(const PageCall& call) {
  putHalf(call);
}

static void atLength(const PageCall& call) {
  putHalf(call);
  std::string text;
  appendWord(text, PROXY_PUT_CLIENT);
  call.exchange.raw(text.append(2, '\0'));
}

static void atData(const PageCall& call) {
  putPromise(call);
  putOpenBlock(call, kPromised, std::string(kGiven, '.'));
}

static void atQuestion(const PageCall& call) {
  putPromise(call);
  putWord(call, PROXY_GET_DATA);
  putWord(call, kMaxDataFrame);
}

static void atFinish(const PageCall& call) {
  putHalf(call);
  call.exchange.putBody(std::string(kPromised - kGiven, '.'));
  call.exchange.putTail();
}

static void withZero(const PageCall& call) {
  putHalf(call);
  putWord(call, 0);
}

static void withUnknown(const PageCall& call) {
  putHalf(call);
  putWord(call, PROXY_SET_SESSION_ID);
}

static void withNegative(const PageCall& call) {
  putPromise(call);
  putOpenBlock(call, -1, {});
}

static void withHuge(const PageCall& call) {
  putPromise(call);
  putOpenBlock(call, 0x7fffffff, std::string(kGiven, '.'));
}

struct BreakRow {
  std::string_view name;
  PageHandler put;
};

// Where the connection breaks off, in the order of a reply; then what no server
// may send. docs/protocol.md tells what the web server's side does with each.
constexpr BreakRow kBreaks[] = {
    {"start", atStart},         {"word", atWord},        {"status", atStatus},
    {"header", atHeader},       {"headers", putPromise}, {"length", atLength},
    {"data", atData},           {"body", atBody},        {"question", atQuestion},
    {"finish", atFinish},       {"zero", withZero},      {"unknown", withUnknown},
    {"negative", withNegative}, {"huge", withHuge},
};

static const BreakRow& breakOf(std::string_view name) {
  const auto* found = std::find_if(std::begin(kBreaks), std::end(kBreaks),
                                   [&](const BreakRow& row) { return row.name == name; });
  if (found != std::end(kBreaks)) return *found;
  std::string names;
  for (const BreakRow& row : kBreaks) names.append(" ").append(row.name);
  throw BadRequest("'at' must be one of" + names);
}

// die?at=&how=: breaks the connection off at that point; with how=reset the
// peer sees a reset instead of an end.
void showDie(const PageCall& call) {
  const BreakRow& row = breakOf(valueOf(call.query, "at", {}));
  const std::string_view how = valueOf(call.query, "how", "close");
  if (how != "close" && how != "reset") {
    throw BadRequest("'how' must be close or reset");
  }
  if (isMeantForAnother(call)) return sendMessage(call, 200, "This server lives on.");
  row.put(call);
  call.exchange.breakOff(how == "reset");
}

// busy?at=: refuses the request, at once or (at=body) after half of a reply.
void showBusy(const PageCall& call) {
  const std::string_view at = valueOf(call.query, "at", "start");
  if (at != "start" && at != "body") throw BadRequest("'at' must be start or body");
  if (isMeantForAnother(call)) return sendMessage(call, 200, "This server isn't busy.");
  if (at == "body") putHalf(call);
  call.exchange.busy();
}

}  // namespace backend
