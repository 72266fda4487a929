#include "ctl/server_check.h"

#include <algorithm>
#include <map>
#include <set>

#include "ctl/display.h"
#include "layer/text.h"
#include "maptable/vesk_maptable_impl.h"
#include "maptable/vesk_session.h"
#include "proxy/proxy_settings.h"

namespace ctl {

// Changes of mappings that arrive later than this are worth a word; seconds.
constexpr std::int64_t kSlowMapCheck = 3600;

std::vector<std::string> listOf(const ServerFacts& server) {
  std::vector<std::string> names;
  for (const auto& [key, name] : server.cluster) {
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  }
  return names;
}

namespace {

class Judge {
 public:
  explicit Judge(const std::vector<ServerFacts>& all) : servers(all) {}

  std::vector<Remark> run() {
    for (const ServerFacts& server : servers) {
      if (!server.answers()) {
        error(server.name, "gives no answer: " + server.failure);
        continue;
      }
      checkMapCheck(server);
      checkBalance(server);
      checkMappings(server);
      checkList(server);
    }
    checkSessions();
    checkAgreement();
    return std::move(remarks);
  }

 private:
  void warn(const std::string& where, const std::string& text) {
    remarks.push_back({Severity::warning, where, text});
  }
  void error(const std::string& where, const std::string& text) {
    remarks.push_back({Severity::error, where, text});
  }

  // The connector reads numbers as strtol does: text without digits is 0.
  static std::int64_t numberOf(const ServerFacts& server, const char* key,
                               std::int64_t absent) {
    const std::string value = valueOf(server.props, key);
    return value.empty() ? absent : std::strtol(value.c_str(), nullptr, 10);
  }

  // Mappings are asked for again when this has passed and a request comes.
  void checkMapCheck(const ServerFacts& server) {
    const std::int64_t seconds = numberOf(server, "mapcheck", kDefaultMapCheck);
    const std::string said = "mapcheck is " + visible(valueOf(server.props, "mapcheck"));
    if (seconds == 0)
      warn(server.name, said +
                            ": its mappings are asked for once, and changes of them "
                            "are not seen");
    if (seconds < 0) warn(server.name, said + ": its mappings are asked for at any time");
    if (seconds > kSlowMapCheck)
      warn(server.name, said + ": changes of its mappings are seen as late as that");
  }

  void checkBalance(const ServerFacts& server) {
    const std::string algorithm = valueOf(server.props, "algorithm");
    const bool weighted = isAlgorithm(algorithm) && algorithm.ends_with("_WEIGHTED");
    if (weighted && numberOf(server, "weight", 1) <= 0)
      warn(server.name, "its weight is 0 or below: with " + algorithm +
                            (algorithm.starts_with("RANDOM") ? " it gets no requests"
                                                             : " it gets all requests"));
    if (algorithm.empty() || isAlgorithm(algorithm)) return;
    warn(server.name,
         "algorithm \"" + visible(algorithm) + "\" is none; ROUNDROBIN is taken");
  }

  static bool isAlgorithm(const std::string& name) {
    for (std::uint32_t code = BALANCE_ROUNDROBIN; code <= BALANCE_RANDOM_WEIGHTED; ++code)
      if (name == algorithmName(code)) return true;
    return false;
  }

  void checkMappings(const ServerFacts& server) {
    if (server.mappings.empty())
      warn(server.name, "has no mappings, so that the connector doesn't take it");
    // A property set holds no more, so that nobody can say how many it sends.
    if (server.mappings.size() >= std::size_t{kMaxProperties})
      warn(server.name, "has " + std::to_string(kMaxProperties) +
                            " mappings at least: what is beyond is left out");
    for (const auto& [pattern, target] : server.mappings) allMappings.insert(pattern);
  }

  void checkList(const ServerFacts& server) {
    const std::vector<std::string> names = listOf(server);
    if (names.size() > std::size_t{kMaxProxies})
      error(server.name, "lists " + std::to_string(names.size()) +
                             " servers; the connector takes " +
                             std::to_string(kMaxProxies));
    const bool named =
        names.empty() || server.dotted.empty() ||
        std::find(names.begin(), names.end(), server.dotted) != names.end();
    if (!named) warn(server.name, "doesn't stand in its own list of servers");
  }

  static bool isSticky(const ServerFacts& server) {
    return valueOf(server.props, "sticky") != "false";
  }

  // Only the first characters of an id count, so two ids may be one.
  void checkSessions() {
    std::map<std::string, std::string> owners;
    for (const ServerFacts& server : servers) {
      if (!server.answers() || !isSticky(server)) continue;
      const std::string id =
          valueOf(server.props, "rep_id").substr(0, kReplicationIdLength);
      if (id.empty())
        warn(server.name,
             "has no rep_id, and sticky is on: its sessions are not found "
             "again");
      if (id.empty()) continue;
      const auto [other, isNew] = owners.emplace(id, server.name);
      if (!isNew)
        error(server.name, "has the rep_id \"" + visible(id) + "\" of " + other->second +
                               ": their sessions are mixed up");
    }
  }

  void checkAgreement() {
    const ServerFacts* first = nullptr;
    for (const ServerFacts& server : servers) {
      if (!server.answers()) continue;
      if (!first) first = &server;
      compareLists(*first, server);
      compareSettings(*first, server);
      compareTargets(server);
    }
    if (allMappings.size() > std::size_t{kMaxMappings})
      error("", "the servers have " + std::to_string(allMappings.size()) +
                    " mappings; the connector takes " + std::to_string(kMaxMappings));
  }

  void compareLists(const ServerFacts& first, const ServerFacts& server) {
    const std::vector<std::string> ours = listOf(first);
    const std::vector<std::string> theirs = listOf(server);
    std::string differs;
    for (const std::string& name : theirs)
      if (std::find(ours.begin(), ours.end(), name) == ours.end())
        differs += " +" + visible(name);
    for (const std::string& name : ours)
      if (std::find(theirs.begin(), theirs.end(), name) == theirs.end())
        differs += " -" + visible(name);
    if (!differs.empty())
      warn(server.name, "has another list of servers than " + first.name + ":" + differs);
    if (server.sequence != first.sequence)
      warn(server.name, "has list number " + sequenceOf(server) + ", " + first.name +
                            " has " + sequenceOf(first) +
                            ": the list is fetched with every answer");
  }

  static std::string sequenceOf(const ServerFacts& server) {
    return server.sequence ? std::to_string(*server.sequence) : "none";
  }

  void compareSettings(const ServerFacts& first, const ServerFacts& server) {
    for (const char* key : {"algorithm", "sticky"}) {
      const std::string ours = valueOf(first.props, key);
      const std::string theirs = valueOf(server.props, key);
      if (host::equalsNoCase(ours, theirs)) continue;
      warn(server.name, std::string(key) + " is \"" + visible(theirs) + "\", " +
                            first.name + " has \"" + visible(ours) +
                            "\": for a mapping of both, one of them counts");
    }
  }

  // A server may disagree on thousands: the first is shown, the others are counted.
  void compareTargets(const ServerFacts& server) {
    int more = -1;
    std::string first;
    for (const auto& [pattern, target] : server.mappings) {
      const auto [known, isNew] =
          targets.emplace(pattern, std::make_pair(target, server.name));
      if (isNew || known->second.first == target) continue;
      if (++more > 0) continue;
      first = "maps " + visible(pattern) + " to \"" + visible(target) + "\", " +
              known->second.second + " to \"" + visible(known->second.first) +
              "\": one of the two is left out of the mapping";
    }
    if (more > 0) first += "; so for " + std::to_string(more) + " more mappings";
    if (more >= 0) warn(server.name, first);
  }

  const std::vector<ServerFacts>& servers;
  std::set<std::string> allMappings{};
  std::map<std::string, std::pair<std::string, std::string>> targets{};  // and who first
  std::vector<Remark> remarks{};
};

}  // namespace

std::vector<Remark> judgeServers(const std::vector<ServerFacts>& servers) {
  return Judge(servers).run();
}

}  // namespace ctl
