#include "ctl/server_facts.h"

#include <chrono>
#include <future>
#include <thread>

#include "ctl/display.h"
#include "proxy/proxy_props.h"

namespace ctl {

// One question whose time is taken: whether it was answered.
static bool takeTime(ServerLink& link, ServerFacts& facts) {
  ++facts.asked;
  SetAnswer answer = link.ask("server-props");
  if (!answer.failure.empty()) {
    facts.failure = answer.failure;
    return false;
  }
  facts.answerMillis.push_back(answer.millis);
  facts.props = std::move(answer.pairs);
  return true;
}

// The first connects; the others find its connection.
static void takeTimes(ServerLink& link, const ToolRequest& request, const Visit& visit,
                      ServerFacts& facts) {
  (void)takeTime(link, facts);
  facts.connectMillis = request.seen().connectMillis;
  while (facts.asked < visit.count) {
    std::this_thread::sleep_for(std::chrono::duration<double>(visit.pause));
    (void)takeTime(link, facts);
  }
}

static void askForSet(ServerLink& link, const char* set, ServerFacts& facts,
                      Properties& pairs) {
  SetAnswer answer = link.ask(set);
  if (!answer.failure.empty()) facts.failure = std::string(set) + ": " + answer.failure;
  pairs = std::move(answer.pairs);
  if (answer.sequence) facts.sequence = answer.sequence;
}

static void visitServer(const Visit& visit, ServerFacts& facts) {
  ToolRequest request(visit.limits, visit.verbose);
  ServerLink link(request, facts.dotted);
  takeTimes(link, request, visit, facts);
  if (facts.answerMillis.empty()) return;
  askForSet(link, "servlet-mappings", facts, facts.mappings);
  askForSet(link, kClusterSet, facts, facts.cluster);
}

ServerFacts gatherFacts(const std::string& address, const Visit& visit) {
  ServerFacts facts;
  facts.name = visible(address);
  const ServerAddress found = resolveServer(address);
  facts.dotted = found.dotted;
  facts.failure = found.failure;
  if (facts.answers()) visitServer(visit, facts);
  return facts;
}

std::vector<ServerFacts> gatherAll(const std::vector<std::string>& addresses,
                                   const Visit& visit) {
  std::vector<std::future<ServerFacts>> visits;
  visits.reserve(addresses.size());
  for (const std::string& address : addresses)
    visits.push_back(
        std::async(std::launch::async, [&] { return gatherFacts(address, visit); }));
  std::vector<ServerFacts> all;
  all.reserve(visits.size());
  for (std::future<ServerFacts>& one : visits) all.push_back(one.get());
  return all;
}

}  // namespace ctl
