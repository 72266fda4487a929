// vesk-ctl props: the property sets of a server, as it gives them.

#include <memory>

#include "ctl/command.h"
#include "ctl/display.h"
#include "ctl/json_output.h"
#include "ctl/options.h"
#include "ctl/server_link.h"
#include "proxy/proxy_props.h"

namespace ctl {

struct PropsOptions {
  std::string address;
  std::string set;  // empty: all
  double timeout = kDefaultTimeout;
};

struct NamedAnswer {
  std::string set;
  SetAnswer answer;
};

// Pairs stand in the server's order, and a key as often as it came.
static Json jsonOf(const NamedAnswer& named) {
  Json pairs = Json::array();
  for (const auto& [key, value] : named.answer.pairs)
    pairs.push_back({{"key", key}, {"value", value}});
  const SetAnswer& answer = named.answer;
  Json one = {{"set", named.set}};
  one["failure"] = answer.failure.empty() ? Json() : Json(answer.failure);
  one["sequence"] = answer.sequence ? Json(*answer.sequence) : Json();
  one["pairs"] = std::move(pairs);
  return one;
}

static std::string headingOf(const NamedAnswer& named) {
  std::string heading = "# " + visible(named.set);
  if (named.answer.sequence)
    heading += ", sequence " + std::to_string(*named.answer.sequence);
  return inColour(Colour::faint, heading) + "\n";
}

// As text of properties, so that what is printed could be read again; of a single set
// without its name.
static void printText(const std::vector<NamedAnswer>& sets) {
  constexpr std::size_t kMostValue = 4096;
  for (const NamedAnswer& named : sets) {
    if (!named.answer.failure.empty()) continue;
    if (sets.size() > 1) print(headingOf(named));
    for (const auto& [key, value] : named.answer.pairs)
      print(visible(key, kMostValue) + "=" + visible(value, kMostValue) + "\n");
  }
}

static std::vector<NamedAnswer> askAll(ServerLink& link, const PropsOptions& options) {
  std::vector<std::string> names = {"server-props", "servlet-mappings", kClusterSet};
  if (!options.set.empty()) names = {options.set};
  std::vector<NamedAnswer> sets;
  for (const std::string& name : names) {
    sets.push_back({name, link.ask(name)});
    if (!sets.back().answer.failure.empty()) break;  // the next would wait as long
  }
  return sets;
}

static int statusOf(const PropsOptions& options, const std::vector<NamedAnswer>& sets) {
  int status = kExitFine;
  for (const NamedAnswer& named : sets) {
    if (named.answer.failure.empty()) continue;
    complain(visible(options.address) + ": " + visible(named.set) + ": " +
             named.answer.failure);
    status = kExitFailure;
  }
  return status;
}

static int runProps(const PropsOptions& options, const Invocation& invocation) {
  const ServerAddress server = resolveServer(options.address);
  if (!server.failure.empty()) {
    complain(visible(options.address) + ": " + server.failure);
    return kExitFailure;
  }
  ToolRequest request(limitsOf(options.timeout), invocation.verbose);
  ServerLink link(request, server.dotted);
  const std::vector<NamedAnswer> sets = askAll(link, options);
  if (invocation.json) {
    Json list = Json::array();
    for (const NamedAnswer& named : sets) list.push_back(jsonOf(named));
    printJson({{"server", options.address}, {"address", server.dotted}, {"sets", list}});
  } else {
    printText(sets);
  }
  return statusOf(options, sets);
}

void addProps(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<PropsOptions>();
  CLI::App* command =
      app.add_subcommand("props", "The property sets of a server, as it gives them");
  command->add_option("SERVER", options->address, "HOST:PORT")->required();
  command->add_option("SET", options->set,
                      "server-props, servlet-mappings or clustered-servers; without it "
                      "all three");
  addTimeout(*command, options->timeout);
  command->callback(
      [options, &invocation] { invocation.exitStatus = runProps(*options, invocation); });
}

}  // namespace ctl
