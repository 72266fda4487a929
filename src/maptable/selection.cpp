#include "maptable/selection.h"

#include <cstdlib>

#include "context/memory.h"
#include "context/privacy.h"
#include "maptable/choice_question.h"
#include "proxy/server_events.h"

constexpr std::uint64_t kDraws = std::uint64_t{RAND_MAX} + 1;

static void sumListWeights(const proxyList* list, mappingBalance* balance) {
  ServerState servers[kMaxProxies];
  readServers(list, nullptr, servers);
  ChoiceQuestion question = questionOf(list, balance, nullptr);
  question.servers = servers;
  balance->totalWeight = sumWeights(question, balance->weightSlots);
  // Nothing to draw from is looked at again: a load value may change it.
  balance->slotsStale = balance->totalWeight > 0 ? 0 : 1;
}

// Each entry owns as many numbers as its weight, in order of the list. What is
// kept are the bounds of these ranges, so memory doesn't follow the weights.
static bool buildWeightSlots(vesk_request* req, const proxyList* list,
                             mappingBalance* balance) {
  if (balance->slotsStale == 0 && balance->weightSlots) return true;
  if (!balance->weightSlots) {
    constexpr std::int64_t kSize = kMaxProxies * std::int64_t{sizeof(std::uint64_t)};
    balance->weightSlots = static_cast<std::uint64_t*>(newPermBlock(req, kSize));
  }
  if (!balance->weightSlots) return false;
  sumListWeights(list, balance);
  return true;
}

// A number below `total`. One draw while that reaches every number.
static std::int64_t drawBelow(std::int64_t total) {
  const auto bound = static_cast<std::uint64_t>(total);
  auto drawn = static_cast<std::uint64_t>(std::rand());
  if (bound > kDraws) drawn = drawn * kDraws + static_cast<std::uint64_t>(std::rand());
  return static_cast<std::int64_t>(drawn % bound);
}

// Told before weights are summed: that may write a line of its own, about memory, and
// the reader should know by then what the choice is about.
static void tellAboutSession(vesk_request* req, const proxyList* list,
                             const Choice& choice) {
  if (choice.reason == ChoiceReason::sessionOwner ||
      choice.reason == ChoiceReason::sessionBuddy)
    req->traceE(req, kTraceState, "Found sticky session host %s",
                list->proxies[choice.position]->name);
  char shown[kShownSessionSize];
  if (choice.sessionBroken)
    req->log(req,
             "Sticky session breakage, a host for serving session %s not available.  "
             "Failing over to another server, but above session is broken.",
             shownSession(req, req->sessionId, shown));
}

// Weights are summed and numbers drawn only for a request that needs them: the sums
// stand until the next rebuild, and the process has one sequence of numbers.
static Choice chooseByDraw(vesk_request* req, const proxyList* list,
                           mappingBalance* balance, ChoiceQuestion* question) {
  if (buildWeightSlots(req, list, balance) && balance->totalWeight > 0) {
    question->weightSums = balance->weightSlots;
    question->drawn = drawBelow(balance->totalWeight);
  }
  return chooseServer(*question);
}

// While a server is drained the sums of the mapping, which count it, are left alone.
static Choice chooseByDrawAmong(ChoiceQuestion question) {
  std::uint64_t sums[kMaxProxies];
  const std::int64_t total = sumWeights(question, sums);
  question.weightSums = sums;
  if (total > 0) question.drawn = drawBelow(total);
  return chooseServer(question);
}

// Counted with the first choice alone: an attempt that fails is counted for its server.
static void noteMovedSession(vesk_request* req, const proxyList* list,
                             const Choice& choice) {
  if (choice.absentOwner < 0) return;
  req->outcome.sessionOwner = list->proxies[choice.absentOwner];
  if (req->outcome.attempts == 0)
    serverLostRequest(list->proxies[choice.absentOwner], true);
}

static Choice choose(vesk_request* req, const proxyList* list, mappingBalance* balance) {
  ChoiceQuestion question = questionOf(list, balance, req->sessionId);
  ServerState servers[kMaxProxies];
  std::uint32_t active[kMaxProxies];
  if (readsServers(question)) {
    readServers(list, nullptr, servers);
    question.servers = servers;
  }
  if (question.drains) leaveOutDrained(&question, active);
  const Choice choice = chooseServer(question);
  tellAboutSession(req, list, choice);
  noteMovedSession(req, list, choice);
  if (choice.reason != ChoiceReason::drawNeeded) return choice;
  return question.drains ? chooseByDrawAmong(question)
                         : chooseByDraw(req, list, balance, &question);
}

// The cursor stays in front of a server until its turns are spent. Only exactly 0 moves
// it on: a weight of 0 or below keeps the rotation where it is.
static void takeTurn(mappingBalance* balance, veskProxy* proxy, std::int32_t position) {
  if (--proxy->balance->turnsLeft != 0) return;
  proxy->balance->turnsLeft = getProxyWeight(proxy);
  balance->cursor = position;
}

// Moves on what the next choice starts from.
static void applyChoice(const proxyList* list, mappingBalance* balance,
                        const Choice& choice) {
  switch (choice.reason) {
    case ChoiceReason::rotation:
    case ChoiceReason::smallestWeight:
    case ChoiceReason::largestWeight:
      balance->cursor = choice.position;
      break;
    case ChoiceReason::weightedRotation:
      takeTurn(balance, list->proxies[choice.position], choice.position);
      break;
    case ChoiceReason::noneInRotation:  // one full turn
      balance->cursor = (balance->cursor + list->count) % list->count;
      break;
    default:
      break;
  }
}

// The timers and flags of the chosen server are only told, not asked: whether it can be
// reached is for the attempt to find out.
veskProxy* selectProxy(mappingsTable* table, vesk_request* req, std::int32_t index) {
  table->tableUse = kTableServing;
  const proxyList* list = table->mappingProxies[index];
  mappingBalance* balance = table->mappingBalances[index];
  const Choice choice = choose(req, list, balance);
  applyChoice(list, balance, choice);
  if (choice.reason == ChoiceReason::noneInRotation)
    req->traceE(req, kTraceState, "selectProxy: RR no active proxies found");
  if (choice.position < 0) {
    req->traceE(req, kTraceState, "<null> selectProxy");
    return nullptr;
  }
  veskProxy* proxy = list->proxies[choice.position];
  req->traceE(req, kTraceDetail, "%s selectProxy%s%s", proxy->name,
              getProxyRetryTime(proxy) != 0 ? " not reachable" : "",
              isProxyActive(proxy) ? "" : " not active");
  return proxy;
}

// Without an algorithm or a cursor: these choices are no turns of the rotation.
veskProxy* selectUntried(const proxyList* list, const failedList& failed) {
  ServerState servers[kMaxProxies];
  std::uint32_t active[kMaxProxies];
  readServers(list, &failed, servers);
  ChoiceQuestion question{};
  question.count = list->count;
  question.active = list->active;
  question.servers = servers;
  leaveOutDrained(&question, active);
  const Choice choice = chooseUntried(question);
  return choice.position >= 0 ? list->proxies[choice.position] : nullptr;
}
