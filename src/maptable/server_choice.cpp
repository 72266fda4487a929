#include "maptable/server_choice.h"

#include <algorithm>

#include "maptable/vesk_session.h"
#include "proxy/vesk_proxy.h"

constexpr std::int32_t kNobody = -1;
// MIN takes nothing from here on, MAX nothing up to its own bound.
constexpr std::int64_t kMinBound = 0x7fffffff;
constexpr std::int64_t kMaxBound = 0;
// A server sends 32 bits; the bound keeps the sum of a full list below 2^62, which is
// what two draws of `rand` reach together.
constexpr std::int64_t kMaxCountedWeight = std::int64_t{1} << 54;

static Choice choiceOf(std::int32_t position, ChoiceReason reason) {
  return {.position = position,
          .reason = reason,
          .sessionBroken = false,
          .absentOwner = kNobody};
}

static Choice nobody(ChoiceReason reason) {
  return choiceOf(kNobody, reason);
}

// The first active entry behind the cursor, which itself comes last.
static Choice rotate(const ChoiceQuestion& question, ChoiceReason found,
                     ChoiceReason notFound) {
  std::int32_t position = question.cursor;
  for (std::int32_t steps = 0; steps < question.count; ++steps) {
    position = (position + 1) % question.count;
    if (question.active[position] != 0) return choiceOf(position, found);
  }
  return nobody(notFound);
}

// The first of the entries whose weight lies furthest beyond `bound`, below it
// for a sign of -1, above it for 1.
static Choice extremeWeight(const ChoiceQuestion& question, std::int64_t bound,
                            std::int64_t sign) {
  std::int32_t best = kNobody;
  for (std::int32_t i = 0; i < question.count; ++i) {
    if (question.active[i] == 0) continue;
    const std::int64_t weight = question.servers[i].weight;
    if (sign * weight <= sign * bound) continue;
    bound = weight;
    best = i;
  }
  if (best < 0) return nobody(ChoiceReason::noneEligible);
  return choiceOf(best,
                  sign < 0 ? ChoiceReason::smallestWeight : ChoiceReason::largestWeight);
}

std::int64_t sumWeights(const ChoiceQuestion& question, std::uint64_t* sums) {
  std::int64_t sum = 0;
  for (std::int32_t i = 0; i < question.count; ++i) {
    if (question.active[i] != 0)
      sum += std::clamp(question.servers[i].weight, std::int64_t{0}, kMaxCountedWeight);
    sums[i] = static_cast<std::uint64_t>(sum);
  }
  return sum;
}

// Each position owns as many numbers as its weight. `active` isn't asked again: the sums
// count as they were made.
static Choice ownerOfDrawn(const ChoiceQuestion& question) {
  if (question.drawn == kNotDrawn) return nobody(ChoiceReason::drawNeeded);
  const std::uint64_t* end = question.weightSums + question.count;
  const auto drawn = static_cast<std::uint64_t>(question.drawn);
  const std::uint64_t* owner = std::upper_bound(question.weightSums, end, drawn);
  if (owner == end) return nobody(ChoiceReason::noneEligible);
  return choiceOf(static_cast<std::int32_t>(owner - question.weightSums),
                  ChoiceReason::weightDrawn);
}

// The tests of an entry differ on purpose: a session asks the server's own state, all
// that balance ask its part in this list.
static Choice runAlgorithm(const ChoiceQuestion& question) {
  switch (question.algorithm) {
    case BALANCE_ROUNDROBIN_WEIGHTED:
      return rotate(question, ChoiceReason::weightedRotation, ChoiceReason::noneEligible);
    case BALANCE_MIN:
      return extremeWeight(question, kMinBound, -1);
    case BALANCE_MAX:
      return extremeWeight(question, kMaxBound, 1);
    case BALANCE_RANDOM_WEIGHTED:
      return ownerOfDrawn(question);
    default:  // no other code leaves initProxy
      return rotate(question, ChoiceReason::rotation, ChoiceReason::noneInRotation);
  }
}

// The owner is looked for among all: one that is out of service has buddies.
static std::int32_t findOwner(const ChoiceQuestion& question) {
  for (std::int32_t i = 0; i < question.count; ++i)
    if (ownsSession(question.servers[i].replicationId, question.sessionId)) return i;
  return kNobody;
}

// The order of the list decides between two that fit one buddy, the order of buddies in
// the id between buddies.
static std::int32_t findBuddy(const ChoiceQuestion& question, const char* buddy) {
  for (std::int32_t i = 0; i < question.count; ++i) {
    const ServerState& server = question.servers[i];
    if (!server.inService || server.drained) continue;
    if (*buddy == kAnyBuddy || ownsSession(server.replicationId, buddy)) return i;
  }
  return kNobody;
}

static Choice chooseBuddy(const ChoiceQuestion& question) {
  for (const char* buddy = getNextBuddy(question.sessionId, nullptr); buddy;
       buddy = getNextBuddy(question.sessionId, buddy)) {
    const std::int32_t position = findBuddy(question, buddy);
    if (position >= 0) return choiceOf(position, ChoiceReason::sessionBuddy);
  }
  return nobody(ChoiceReason::sessionLost);
}

// Without an owner in the list the id is of another cluster, or made up: its buddies
// mean nothing here.
Choice resolveServerId(const ChoiceQuestion& question) {
  const std::int32_t owner = findOwner(question);
  if (owner < 0) return nobody(ChoiceReason::sessionLost);
  if (question.servers[owner].inService)
    return choiceOf(owner, ChoiceReason::sessionOwner);
  Choice choice = chooseBuddy(question);
  choice.absentOwner = owner;
  return choice;
}

static bool asksForSession(const ChoiceQuestion& question) {
  return question.sticky && question.sessionId;
}

// The states of 128 servers cost more to read than a rotation costs; so it does without.
bool readsServers(const ChoiceQuestion& question) {
  if (question.drains) return true;
  if (question.count == 1) return false;
  return asksForSession(question) || question.algorithm == BALANCE_MIN ||
         question.algorithm == BALANCE_MAX;
}

// A mapping's only server is chosen in any state: there is nobody else, and the attempt
// shows whether it is back. But a drained one has its own sessions alone.
static Choice chooseOnly(const ChoiceQuestion& question) {
  const bool keeps = !question.drains || !question.servers[0].drained ||
                     (asksForSession(question) &&
                      ownsSession(question.servers[0].replicationId, question.sessionId));
  return keeps ? choiceOf(0, ChoiceReason::onlyServer)
               : nobody(ChoiceReason::noneEligible);
}

Choice chooseServer(const ChoiceQuestion& question) {
  if (question.count == 1) return chooseOnly(question);
  if (!asksForSession(question)) return runAlgorithm(question);
  const Choice session = resolveServerId(question);
  if (session.position >= 0) return session;
  Choice choice = runAlgorithm(question);
  choice.sessionBroken = true;
  choice.absentOwner = session.absentOwner;
  return choice;
}

// Neither algorithm nor session count any more: this is for a request that has met the
// same dead server twice.
Choice chooseUntried(const ChoiceQuestion& question) {
  for (std::int32_t i = 0; i < question.count; ++i) {
    const ServerState& server = question.servers[i];
    if (question.active[i] != 0 && server.inService && !server.failed)
      return choiceOf(i, ChoiceReason::untried);
  }
  return nobody(ChoiceReason::noneUntried);
}
