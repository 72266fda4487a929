// vesk-ctl ping: whether servers answer, how soon, and who they say they are.

#include <algorithm>
#include <cstdio>
#include <memory>
#include <numeric>

#include "ctl/clock_text.h"
#include "ctl/command.h"
#include "ctl/display.h"
#include "ctl/json_output.h"
#include "ctl/options.h"
#include "ctl/server_facts.h"

namespace ctl {

struct PingOptions {
  std::vector<std::string> addresses;
  int count = 1;
  double interval = 1;
  double timeout = kDefaultTimeout;
};

// Of one answer its time; of several the shortest, the mean and the longest.
static std::string answerText(const ServerFacts& facts) {
  const std::vector<double>& times = facts.answerMillis;
  if (facts.asked == 1) return millisText(times.front()) + " ms";
  const auto [least, most] = std::minmax_element(times.begin(), times.end());
  const double mean = std::accumulate(times.begin(), times.end(), 0.0) /
                      static_cast<double>(times.size());
  char text[96];
  (void)std::snprintf(text, sizeof text, "%.2f/%.2f/%.2f ms %zu/%d", *least, mean, *most,
                      times.size(), facts.asked);
  return text;
}

// A value that a server names, or "-".
static Cell valueCell(const ServerFacts& facts, const char* key) {
  constexpr std::size_t kMostValue = 40;
  const std::string value = valueOf(facts.props, key);
  return {value.empty() ? "-" : visible(value, kMostValue)};
}

static Cell remarkCell(const ServerFacts& facts) {
  if (!facts.answers()) return {facts.failure, Colour::bad};
  return {"serves nothing: a web server wouldn't take it", Colour::warning};
}

// A name with its address: the connector's settings take that alone.
static std::string serverText(const ServerFacts& facts) {
  const bool same = facts.dotted.empty() || facts.dotted == facts.name;
  const std::string address = facts.dotted.substr(0, facts.dotted.find(':'));
  return same ? facts.name : facts.name + " (" + address + ")";
}

static std::vector<Cell> rowOf(const ServerFacts& facts) {
  if (facts.answerMillis.empty())
    return {{serverText(facts), Colour::bad}, {facts.failure, Colour::bad}};
  const bool fine = facts.answers() && !facts.mappings.empty();
  std::vector<Cell> row = {{serverText(facts), fine ? Colour::good : Colour::warning},
                           {millisText(facts.connectMillis) + " ms"},
                           {answerText(facts)},
                           valueCell(facts, "rep_id"),
                           valueCell(facts, "weight"),
                           valueCell(facts, "algorithm"),
                           valueCell(facts, "sticky"),
                           {std::to_string(facts.mappings.size())},
                           {std::to_string(facts.cluster.size())},
                           {facts.sequence ? std::to_string(*facts.sequence) : "-"}};
  if (!fine) row.push_back(remarkCell(facts));
  return row;
}

static void printTable(const std::vector<ServerFacts>& all, const PingOptions& options) {
  const char* answer = options.count > 1 ? "ANSWER min/mean/max" : "ANSWER";
  Table table;
  table.add(titles({"SERVER", "CONNECT", answer, "REP_ID", "WEIGHT", "ALGORITHM",
                    "STICKY", "MAPPINGS", "CLUSTER", "SEQUENCE"}));
  for (const ServerFacts& facts : all) table.add(rowOf(facts));
  print(table.text());
}

static Json jsonOf(const ServerFacts& facts) {
  Json one = {{"server", facts.name}, {"address", facts.dotted}};
  one["ok"] = facts.answers();
  one["failure"] = facts.answers() ? Json() : Json(facts.failure);
  one["asked"] = facts.asked;
  if (facts.answerMillis.empty()) return one;
  one["connect_ms"] = roundedMillis(facts.connectMillis);
  for (const double millis : facts.answerMillis)
    one["answer_ms"].push_back(roundedMillis(millis));
  for (const char* key : {"rep_id", "weight", "algorithm", "sticky"})
    one[key] = valueOf(facts.props, key);
  one["mappings"] = facts.mappings.size();
  one["cluster"] = facts.cluster.size();
  one["sequence"] = facts.sequence ? Json(*facts.sequence) : Json();
  return one;
}

static void printAsJson(const std::vector<ServerFacts>& all) {
  Json list = Json::array();
  for (const ServerFacts& facts : all) list.push_back(jsonOf(facts));
  printJson({{"servers", list}});
}

static int statusOf(const std::vector<ServerFacts>& all) {
  int status = kExitFine;
  for (const ServerFacts& facts : all) {
    if (facts.mappings.empty()) status = std::max<int>(status, kExitWarning);
    if (!facts.answers()) status = kExitFailure;
  }
  return status;
}

static int runPing(const PingOptions& options, const Invocation& invocation) {
  Visit visit;
  visit.limits = limitsOf(options.timeout);
  visit.count = options.count;
  visit.pause = options.interval;
  visit.verbose = invocation.verbose;
  const std::vector<ServerFacts> all = gatherAll(options.addresses, visit);
  if (invocation.json) {
    printAsJson(all);
  } else {
    printTable(all, options);
  }
  return statusOf(all);
}

void addPing(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<PingOptions>();
  CLI::App* command = app.add_subcommand(
      "ping", "Whether servers answer, how soon, and who they say they are");
  command->add_option("SERVER", options->addresses, "HOST:PORT of each")->required();
  command->add_option("-c,--count", options->count, "Ask each so many times")
      ->check(CLI::Range(1, kMostQuestions))
      ->type_name("N");
  command->add_option("-i,--interval", options->interval, "Seconds between two of them")
      ->check(secondsFrom(0.0))
      ->type_name("S");
  addTimeout(*command, options->timeout);
  command->callback(
      [options, &invocation] { invocation.exitStatus = runPing(*options, invocation); });
}

}  // namespace ctl
