// The page whose every block tells the request that it answers.

#include <algorithm>

#include "backend/log.h"
#include "backend/pages/reply.h"
#include "backend/pages/request_body.h"
#include "backend/text.h"

namespace backend {

constexpr std::int64_t kMaxMarkedBlocks = 10000;
constexpr std::int64_t kMaxMarkedSize{1 << 20};
constexpr std::size_t kMaxMark = 64;

// What of the query shapes the answer.
struct MarkedPlan {
  std::string mark;
  std::int64_t blocks;
  std::int64_t size;  // of each block; one too small for its line grows
  std::int64_t pause;
  bool lengthTold;
};

static std::string markOf(const PageCall& call) {
  std::string mark(valueOf(call.query, "mark", {}));
  const bool usable = !mark.empty() && mark.size() <= kMaxMark && isHeaderSafe(mark) &&
                      mark.find(' ') == std::string::npos;
  if (usable) return mark;
  throw BadRequest("'mark' must be 1 to 64 characters without blanks");
}

static MarkedPlan planOfMarked(const PageCall& call) {
  return {markOf(call), numberOf(call.query, "blocks", {1, kMaxMarkedBlocks, 1}),
          numberOf(call.query, "size", {1, kMaxMarkedSize, 100}),
          numberOf(call.query, "ms", {0, kMaxPause, 0}),
          numberOf(call.query, "length", {0, 1, 1}) == 1};
}

// How a block begins: mark, replication id, its number and that of all.
static std::string lineOf(const PageCall& call, const MarkedPlan& plan,
                          std::int64_t number) {
  return plan.mark + " " + call.server.options.repId + " " + std::to_string(number) +
         "/" + std::to_string(plan.blocks) + " ";
}

static std::string blockOf(const PageCall& call, const MarkedPlan& plan,
                           std::int64_t number) {
  std::string line = lineOf(call, plan, number);
  line.resize(std::max(line.size(), static_cast<std::size_t>(plan.size) - 1), '.');
  return line + "\n";
}

static std::int64_t sizeOfAll(const PageCall& call, const MarkedPlan& plan) {
  std::int64_t total = 0;
  for (std::int64_t i = 1; i <= plan.blocks; ++i) {
    const auto line = static_cast<std::int64_t>(lineOf(call, plan, i).size());
    total += std::max(line + 1, plan.size);
  }
  return total;
}

// Reads a body that must be lines of the mark alone, and logs that the request was
// carried out: the log then tells how often.
static void carryOut(const PageCall& call, const std::string& mark) {
  const std::string line = mark + "\n";
  std::size_t position = 0;
  bool own = true;
  std::int64_t total = 0;
  const auto compare = [&](std::string_view block) {
    for (const char c : block) own &= c == line[position++ % line.size()];
  };
  if (!readBody(call, planOf(call), total, compare)) throw brokenBody(call, total);
  if (!own) throw BadRequest("the request body isn't lines of the mark");
  logLine(call.connection.peer(), "carried out " + mark);
}

static void putMarkedHead(const PageCall& call, const MarkedPlan& plan) {
  std::optional<std::int64_t> length;
  if (plan.lengthTold) length = sizeOfAll(call, plan);
  putHead(call, {200, "text/plain; charset=utf-8", length});
  call.exchange.putHeader("X-Mark", plan.mark);
  // A name of its own: what an attempt before this one has left can't be replaced by it.
  call.exchange.putHeader("X-Server-" + call.server.options.repId, plan.mark);
}

// marked?mark=&blocks=&size=&ms=&length=: that many blocks, each sent at once behind
// that pause. With POST the body is checked first, and the log tells of the request.
void showMarked(const PageCall& call) {
  const MarkedPlan plan = planOfMarked(call);
  if (variableOf(call.request, "REQUEST_METHOD") == "POST") carryOut(call, plan.mark);
  putMarkedHead(call, plan);
  for (std::int64_t i = 1; i <= plan.blocks && !call.head; ++i) {
    if (plan.pause > 0) {
      call.exchange.flush();
      pauseFor(call, plan.pause);
    }
    putBlock(call, blockOf(call, plan, i));
  }
  call.exchange.finish();
}

}  // namespace backend
