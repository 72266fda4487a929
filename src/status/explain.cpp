#include "status/explain.h"

#include <algorithm>
#include <cstring>

#include "context/guards.h"
#include "context/memory.h"
#include "context/privacy.h"
#include "context/request_block.h"
#include "context/vesk_mutex.h"
#include "maptable/choice_question.h"
#include "maptable/request_filter.h"
#include "proxy/replay.h"

constexpr std::int32_t kNobody = -1;

// What the attempts change, on a copy: a server that refuses goes out of service.
struct Scene {
  ServerState servers[kMaxProxies];
  std::uint32_t active[kMaxProxies];
  std::uint64_t sums[kMaxProxies];
  std::uint32_t listed[kMaxProxies];  // active in the mapping's list, drained or not
};

// --- the mappings ---------------------------------------------------------------------

// REQUIRES: tableMutex, until the patterns have been looked at.
static Explanation* newExplanation(const mappingsTable* table, vesk_request* req) {
  const std::int64_t count = table->mappings->count;
  const std::int64_t rows = count * std::int64_t{sizeof(ExplainedMapping)};
  auto* explained =
      static_cast<Explanation*>(newZeroed(req, std::int64_t{sizeof(Explanation)} + rows));
  if (!explained) return nullptr;
  explained->mappings = reinterpret_cast<ExplainedMapping*>(explained + 1);
  explained->mappingCount = table->mappings->count;
  explained->winner = kNobody;
  explained->end = AttemptsEnd::noMapping;
  return explained;
}

// Each pattern is tested in full, also those that the walk of a request rules out by a
// byte: their reasons are what is asked for.
static void walkMappings(const mappingsTable* table, const MatchSubject& subject,
                         Explanation* explained) {
  if (!subject.uri.data()) return;
  while (explained->lookedAt < explained->mappingCount && explained->winner < 0) {
    const std::int32_t index = explained->lookedAt++;
    const uriPattern& pattern = table->patterns[index];
    const PatternMatch match = matchPattern(pattern, subject);
    explained->mappings[index] = {.pattern = pattern.text, .match = match};
    if (match == PatternMatch::matched) explained->winner = index;
  }
}

// --- the session
// ------------------------------------------------------------------------

// A buddy that names no server of the list is left out: it may be another cookie's text,
// since buddies are read up to the end of what the browser sent.
static void rankBuddies(const char* session, const Scene& scene, Explanation* explained) {
  std::int32_t rank = 0;
  for (const char* buddy = getNextBuddy(session, nullptr); buddy;
       buddy = getNextBuddy(session, buddy)) {
    ++rank;
    if (*buddy == kAnyBuddy && explained->anyBuddyRank == 0)
      explained->anyBuddyRank = rank;
    for (std::int32_t i = 0; i < explained->serverCount; ++i) {
      ExplainedServer* server = &explained->servers[i];
      if (server->buddyRank == 0 && ownsSession(scene.servers[i].replicationId, buddy))
        server->buddyRank = rank;
    }
  }
}

static void explainSession(const ChoiceQuestion& question, const Scene& scene,
                           Explanation* explained) {
  explained->hasSession = question.sessionId != nullptr;
  if (!question.sessionId) return;
  shortenSession(question.sessionId, explained->session);
  const Choice session = resolveServerId(question);
  const std::int32_t owner = session.reason == ChoiceReason::sessionOwner
                                 ? session.position
                                 : session.absentOwner;
  if (owner >= 0) explained->servers[owner].ownsSession = true;
  rankBuddies(question.sessionId, scene, explained);
}

// --- the choice
// -------------------------------------------------------------------------

static void explainServers(const proxyList* list, const Scene& scene,
                           Explanation* explained) {
  explained->serverCount = list->count;
  for (std::int32_t i = 0; i < list->count; ++i) {
    ExplainedServer* server = &explained->servers[i];
    const ServerState& state = scene.servers[i];
    std::memcpy(server->name, list->proxies[i]->name, sizeof server->name);
    if (state.replicationId)
      std::strncpy(server->replicationId, state.replicationId, kReplicationIdLength);
    server->weight = state.weight;
    server->retryTime = getProxyRetryTime(list->proxies[i]);
    server->active = list->active[i] != 0;
    server->inService = state.inService;
    server->drained = state.drained;
  }
}

// The sums that the next draw goes by. Those of the table count as they were made, also
// where a weight has changed since.
static void readSums(const mappingBalance* balance, const ChoiceQuestion& question,
                     std::uint64_t* sums) {
  if (balance->slotsStale == 0 && balance->weightSlots && !question.drains)
    std::copy_n(balance->weightSlots, question.count, sums);
  else
    (void)sumWeights(question, sums);
}

static void explainShares(const ChoiceQuestion& question, Explanation* explained) {
  if (question.algorithm != BALANCE_RANDOM_WEIGHTED) return;
  explained->totalWeight = question.weightSums[question.count - 1];
  for (std::int32_t i = 0; i < question.count; ++i)
    explained->servers[i].share =
        question.weightSums[i] - (i > 0 ? question.weightSums[i - 1] : 0);
}

// Whether a draw has one outcome only: nobody, or the one server that owns all numbers.
static bool isDrawCertain(const ChoiceQuestion& question) {
  const std::uint64_t* end = question.weightSums + question.count;
  const std::uint64_t* first =
      std::upper_bound(question.weightSums, end, std::uint64_t{0});
  return first == end || *first == end[-1];
}

// The road's own choice, as far as it goes without a draw.
static Choice chooseWithoutDraw(ChoiceQuestion question) {
  if (isDrawCertain(question)) question.drawn = 0;
  return chooseServer(question);
}

static bool isAnyListed(const ChoiceQuestion& question, const Scene& scene) {
  const std::uint32_t* end = scene.listed + question.count;
  return std::any_of(scene.listed, end, [](std::uint32_t one) { return one != 0; });
}

static AttemptsEnd endWithoutActive(const mappingsTable* table,
                                    const Explanation* explained) {
  if (explained->attemptCount > 0) return AttemptsEnd::nobodyLeft;
  return table->queue ? AttemptsEnd::leftToThread : AttemptsEnd::nobodyActive;
}

// A choice that finds nobody: where servers are drained, the others are looked for.
static AttemptsEnd endWithoutChoice(const mappingsTable* table,
                                    const ChoiceQuestion& question, ChoiceReason reason,
                                    const Explanation* explained) {
  if (reason == ChoiceReason::drawNeeded) return AttemptsEnd::drawn;
  return question.drains && explained->inCluster ? endWithoutActive(table, explained)
                                                 : AttemptsEnd::nobodyLeft;
}

// Attempt by attempt, each as the table would stand after the one before was refused. The
// cursor needs no copy: with the server out that it has come to, a rotation goes on
// behind it either way. Each attempt takes a server out, so there is an end.
static AttemptsEnd walkAttempts(const mappingsTable* table,
                                const ChoiceQuestion& question, Scene* scene,
                                Explanation* explained) {
  for (;;) {
    if (explained->inCluster && !isAnyListed(question, *scene))
      return endWithoutActive(table, explained);
    const Choice choice = chooseWithoutDraw(question);
    if (explained->attemptCount == 0) explained->choice = choice;
    if (choice.position < 0)
      return endWithoutChoice(table, question, choice.reason, explained);
    explained->attempts[explained->attemptCount++] = {.server = choice.position,
                                                      .reason = choice.reason};
    if (!explained->inCluster) return AttemptsEnd::noCluster;
    scene->servers[choice.position].inService = false;
    scene->active[choice.position] = 0;
    scene->listed[choice.position] = 0;
    (void)sumWeights(question, scene->sums);
  }
}

// REQUIRES: tableMutex.
static void explainChoice(mappingsTable* table, const char* session,
                          Explanation* explained) {
  const proxyList* list = table->mappingProxies[explained->winner];
  const mappingBalance* balance = table->mappingBalances[explained->winner];
  Scene scene{};
  readServers(list, nullptr, scene.servers);
  ChoiceQuestion question = questionOf(list, balance, session);
  question.servers = scene.servers;
  leaveOutDrained(&question, scene.active);
  std::copy_n(list->active, list->count, scene.listed);
  readSums(balance, question, scene.sums);
  question.weightSums = scene.sums;

  explained->inCluster = isClustered(table);
  explained->algorithm = balance->algorithm;
  explained->sticky = question.sticky;
  explained->choice = {.position = kNobody,
                       .reason = ChoiceReason::noneInRotation,
                       .sessionBroken = false,
                       .absentOwner = kNobody};
  explainServers(list, scene, explained);
  explainSession(question, scene, explained);
  explainShares(question, explained);
  explained->end = walkAttempts(table, question, &scene, explained);
}

// What of a request is asked of the host stays its own until here.
static Explanation* explainLocked(mappingsTable* table, vesk_request* req,
                                  MatchSubject subject, const char* session) {
  const SyncGuard guard(req, &table->tableMutex, &table->tableMutexHeld);
  Explanation* explained = newExplanation(table, req);
  if (!explained) return nullptr;
  // Asked by the filter stage, the first to see a request.
  subject.ignoreSuffix = table->ignoreSuffix != 0;
  walkMappings(table, subject, explained);
  explained->repeatable = !guarded(req, Guard::replay) || isRepeatable(req->method);
  if (explained->winner >= 0) explainChoice(table, session, explained);
  return explained;
}

Explanation* explainRequest(mappingsTable* table, vesk_request* req) {
  const RequestBlock stripped{req, removePathParms(req, pathOf(req))};
  const RequestBlock session{req, getSessionId(req)};
  const char* host = req->getHeader(req, "HOST");
  const MatchSubject subject = makeSubject(req, stripped.bytes, host);
  Explanation* explained = explainLocked(table, req, subject, session.bytes);
  if (host) req->freeHeader(req, host);
  return explained;
}
