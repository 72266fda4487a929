// vesk-ctl explain: which mapping and which server a URL goes to, and why.

#include <memory>

#include "ctl/command.h"
#include "ctl/configured_table.h"
#include "ctl/display.h"
#include "ctl/explanation_display.h"
#include "ctl/options.h"
#include "layer/uri.h"

namespace ctl {

struct ExplainOptions {
  std::string file;
  std::string url;
  std::string host;
  std::string cookie;
  std::string method = "GET";
  bool all = false;
  double timeout = kDefaultTimeout;
};

static int failWith(const std::string& text, int status) {
  complain(text);
  return status;
}

// What is missing of the table that a web server would have.
static void tellSource(const ConfiguredTable& table) {
  if (table.source().empty())
    complain("no server has answered, so that there are no mappings");
  if (table.source() == "store")
    complain("the bootstrap server has brought no server; asked were those of the store");
  for (const std::string& name : table.absent())
    complain(visible(name) + " is listed and could not be asked; it is left out");
}

static int showExplanation(ConfiguredTable& table, const Target& target,
                           const ExplainOptions& options, const Invocation& invocation) {
  const auto explained = table.explain(options.method, target, options.cookie);
  if (invocation.json) {
    Json all = {{"uri", target.uri}, {"host", target.host}, {"from", table.source()}};
    all["absent"] = table.absent();
    all.update(jsonOf(*explained));
    printJson(all);
  } else {
    const std::string host = target.host.empty() ? "no host" : "host " + target.host;
    print(visible(target.uri) + " (" + visible(host) + ")\n");
    print(textOf(*explained, options.all));
  }
  return explained->winner < 0 ? kExitWarning : kExitFine;
}

static int runExplain(const ExplainOptions& options, const Invocation& invocation) {
  const Configuration configuration = readConfiguration(options.file);
  if (!configuration.veskinit())
    return failWith("no line of " + options.file + " runs veskinit", kExitFailure);
  Target target = readTarget(options.url);
  if (!target.failure.empty()) return failWith(visible(target.failure), kExitUsage);
  if (!options.host.empty()) target.host = options.host;
  if (host::uriIsEvil(target.uri))
    complain("a web server refuses or rewrites a path with //, /. or /.. in it");
  ConfiguredTable table(configuration, limitsOf(options.timeout), invocation.verbose);
  tellSource(table);
  if (table.source().empty()) return kExitFailure;
  return showExplanation(table, target, options, invocation);
}

void addExplain(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<ExplainOptions>();
  CLI::App* command = app.add_subcommand(
      "explain", "Which mapping and which server a URL goes to, and why");
  command
      ->add_option("CONFIG", options->file,
                   "A file of vesk-host, or httpd's configuration")
      ->required();
  command->add_option("URL", options->url, "http://HOST/PATH, or a path")->required();
  command->add_option("--host", options->host, "The host header, in place of the URL's");
  command->add_option("--cookie", options->cookie, "The cookie header");
  command->add_option("--method", options->method, "The method")->capture_default_str();
  command->add_flag("--all", options->all, "Show each mapping that was looked at");
  addTimeout(*command, options->timeout);
  command->callback([options, &invocation] {
    invocation.exitStatus = runExplain(*options, invocation);
  });
}

}  // namespace ctl
