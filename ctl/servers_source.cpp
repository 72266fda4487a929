// A watch of the servers themselves, where no web server tells of them.

#include <algorithm>
#include <ctime>
#include <iterator>
#include <map>

#include "ctl/clock_text.h"
#include "ctl/configured_table.h"
#include "ctl/server_check.h"
#include "ctl/watch_source.h"
#include "maptable/vesk_maptable_impl.h"

namespace ctl {

// What the watch remembers of a server.
struct Watched {
  bool known = false;  // it has been asked
  bool up = false;
  std::time_t since = 0;  // of the state, as the watch has seen it
  int asked = 0;
  int failed = 0;
};

class ServersSource : public WatchSource {
 public:
  ServersSource(const std::string& file, const Visit& asked)
      : configuration(readConfiguration(file)), visit(asked) {}
  View look() override;

 private:
  [[nodiscard]] std::vector<ServerFacts> askAll();
  void addListed(const std::vector<ServerFacts>& all);
  void note(const ServerFacts& facts);
  [[nodiscard]] std::vector<Cell> rowOf(const ServerFacts& facts);
  [[nodiscard]] Json jsonOf(const ServerFacts& facts);

  Configuration configuration;
  Visit visit;
  std::vector<std::string> addresses;  // in the order in which they were met
  std::map<std::string, Watched> watched;
  std::vector<std::string> news;
};

// A server that joins is asked in the same look; one that has left is asked on, since
// who watches wants to see it come back.
void ServersSource::addListed(const std::vector<ServerFacts>& all) {
  for (const ServerFacts& facts : all) {
    for (const std::string& name : listOf(facts)) {
      const bool there =
          std::find(addresses.begin(), addresses.end(), name) != addresses.end();
      if (!there && addresses.size() < kMaxProxies) addresses.push_back(name);
    }
  }
}

std::vector<ServerFacts> ServersSource::askAll() {
  if (addresses.empty())
    addresses = addressesOf(configuration,
                            ConfiguredTable(configuration, visit.limits, visit.verbose));
  std::vector<ServerFacts> all = gatherAll(addresses, visit);
  addListed(all);
  const auto first = addresses.begin() + static_cast<std::ptrdiff_t>(all.size());
  std::vector<ServerFacts> more = gatherAll({first, addresses.end()}, visit);
  std::move(more.begin(), more.end(), std::back_inserter(all));
  return all;
}

void ServersSource::note(const ServerFacts& facts) {
  Watched& one = watched[facts.name];
  ++one.asked;
  if (!facts.answers()) ++one.failed;
  const bool changed = !one.known || one.up != facts.answers();
  const bool isNews = one.known && changed;
  one.known = true;
  one.up = facts.answers();
  if (changed) one.since = std::time(nullptr);
  if (isNews)
    news.push_back(clockText(one.since) + " " + facts.name +
                   (one.up ? " UP" : " DOWN " + facts.failure));
}

std::vector<Cell> ServersSource::rowOf(const ServerFacts& facts) {
  constexpr std::size_t kMostValue = 40;
  const auto value = [&facts](const char* key) {
    const std::string text = valueOf(facts.props, key);
    return Cell{text.empty() ? "-" : visible(text, kMostValue)};
  };
  const Watched& one = watched[facts.name];
  const bool timed = !facts.answerMillis.empty();
  std::vector<Cell> row = {
      {facts.name},
      {one.up ? "up" : "down", one.up ? Colour::good : Colour::bad},
      {durationText(std::time(nullptr) - one.since)},
      value("rep_id"),
      value("weight"),
      value("algorithm"),
      {timed ? std::to_string(facts.mappings.size()) : "-"},
      {facts.sequence ? std::to_string(*facts.sequence) : "-"},
      {timed ? millisText(facts.connectMillis) : "-"},
      {timed ? millisText(facts.answerMillis.front()) : "-"},
      {std::to_string(one.asked)},
      {std::to_string(one.failed), one.failed > 0 ? Colour::warning : Colour::plain}};
  if (!facts.answers()) row.push_back({facts.failure, Colour::bad});
  return row;
}

Json ServersSource::jsonOf(const ServerFacts& facts) {
  const Watched& one = watched[facts.name];
  return {{"server", facts.name},
          {"state", one.up ? "up" : "down"},
          {"failure", facts.answers() ? Json() : Json(facts.failure)},
          {"since", one.since},
          {"rep_id", valueOf(facts.props, "rep_id")},
          {"weight", valueOf(facts.props, "weight")},
          {"mappings", facts.mappings.size()},
          {"sequence", facts.sequence ? Json(*facts.sequence) : Json()},
          {"asked", one.asked},
          {"failed", one.failed}};
}

View ServersSource::look() {
  constexpr std::size_t kMostNews = 100;
  View view;
  view.json = {{"time", std::time(nullptr)}, {"servers", Json::array()}};
  view.servers.add(
      titles({"SERVER", "STATE", "SINCE", "REP_ID", "WEIGHT", "ALGORITHM", "MAPPINGS",
              "SEQUENCE", "CONNECT MS", "ANSWER MS", "ASKED", "FAILED"}));
  std::ptrdiff_t up = 0;
  const std::vector<ServerFacts> all = askAll();
  for (const ServerFacts& facts : all) {
    note(facts);
    if (facts.answers()) ++up;
    view.servers.add(rowOf(facts));
    view.json["servers"].push_back(jsonOf(facts));
  }
  view.allWell = up == std::ssize(all);
  if (all.empty()) view.failure = "neither bootstrap nor store names a server";
  view.summary = std::to_string(up) + " of " + std::to_string(all.size()) +
                 " servers answer this program";
  if (news.size() > kMostNews) news.erase(news.begin(), news.end() - kMostNews);
  view.news = news;
  return view;
}

std::unique_ptr<WatchSource> watchServers(const std::string& file, const Visit& visit) {
  return std::make_unique<ServersSource>(file, visit);
}

}  // namespace ctl
