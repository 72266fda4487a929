// vesk-ctl explain: which mapping and which server a URL goes to, and why.

#include <memory>
#include <stdexcept>

#include "ctl/command.h"
#include "ctl/configured_table.h"
#include "ctl/display.h"
#include "ctl/explanation_display.h"
#include "ctl/fetch_url.h"
#include "ctl/options.h"
#include "layer/uri.h"

namespace ctl {

struct ExplainOptions {
  std::vector<std::string> words;  // CONFIG and URL, or URL alone
  std::string page;                // a status page's URL; empty: CONFIG counts
  std::string host;
  std::string cookie;
  std::string method = "GET";
  bool all = false;
  double timeout = kDefaultTimeout;
};

// What is missing of the table that a web server would have.
static void tellSource(const ConfiguredTable& table) {
  if (table.source().empty()) throw std::runtime_error("no server has answered");
  if (table.source() == "store")
    complain("the bootstrap server has brought no server; asked were those of the store");
  for (const std::string& name : table.absent())
    complain(visible(name) + " is listed and could not be asked; it is left out");
}

static Json explainByConfiguration(const ExplainOptions& options, const Target& target,
                                   bool verbose) {
  const Configuration configuration = readConfiguration(options.words.front());
  if (!configuration.veskinit())
    throw std::runtime_error("no line of " + options.words.front() + " runs veskinit");
  ConfiguredTable table(configuration, limitsOf(options.timeout), verbose);
  tellSource(table);
  const auto explained = table.explain(options.method, target, options.cookie);
  Json all = {{"uri", target.uri}, {"host", target.host}, {"from", table.source()}};
  all["absent"] = table.absent();
  all.update(jsonOf(*explained));
  return all;
}

// As a value in a query.
static std::string encoded(const std::string& text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  constexpr unsigned kLowDigit = 15;
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || c == '/' || c == '.' || c == '-') {
      out += c;
      continue;
    }
    out += '%';
    out += kDigits[byte >> 4U];
    out += kDigits[byte & kLowDigit];
  }
  return out;
}

static Json explainByPage(const ExplainOptions& options, const std::string& url) {
  std::string asked = options.page.substr(0, options.page.find('?'));
  if (asked.ends_with('/')) asked.pop_back();
  asked +=
      "/explain?format=json&url=" + encoded(url) + "&method=" + encoded(options.method);
  if (!options.host.empty()) asked += "&host=" + encoded(options.host);
  if (!options.cookie.empty()) asked += "&cookie=" + encoded(options.cookie);
  return parsePeerJson(fetchUrl(asked, options.timeout));
}

static std::string textOf(const Json& explained, const ExplainOptions& options) {
  const std::string host = explained.value("host", "");
  return visible(explained.value("uri", "")) + " (" +
         (host.empty() ? "no host" : "host " + visible(host)) + ")\n" +
         textOf(explained, options.all);
}

// Shown is what can be shown whole: a page may be another's, and lack anything.
static int showByPage(const ExplainOptions& options, const std::string& url,
                      const Invocation& invocation) try {
  const Json explained = explainByPage(options, url);
  const std::string text = textOf(explained, options);
  const bool taken = !explained.at("winner").is_null();
  if (invocation.json)
    printJson(explained);
  else
    print(text);
  return taken ? kExitFine : kExitWarning;
} catch (const Json::exception&) {
  throw std::runtime_error(visible(options.page) + " gives no explanations");
}

static int showByConfiguration(const ExplainOptions& options, const Target& target,
                               const Invocation& invocation) {
  const Json explained = explainByConfiguration(options, target, invocation.verbose);
  if (invocation.json)
    printJson(explained);
  else
    print(textOf(explained, options));
  return explained.at("winner").is_null() ? kExitWarning : kExitFine;
}

static int runExplain(const ExplainOptions& options, const Invocation& invocation) {
  const std::string& url = options.words.back();
  Target target = readTarget(url);
  if (!target.failure.empty()) {
    complain(visible(target.failure));
    if (invocation.json) printJson({{"failure", target.failure}});
    return kExitUsage;
  }
  if (!options.host.empty()) target.host = options.host;
  if (host::uriIsEvil(target.uri))
    complain("a web server refuses or rewrites a path with //, /. or /.. in it");
  return options.page.empty() ? showByConfiguration(options, target, invocation)
                              : showByPage(options, url, invocation);
}

static bool isComplete(const ExplainOptions& options) {
  if (!options.page.empty() && !isUrl(options.page)) {
    complain("--from takes a URL with http:// or https://, not " + visible(options.page));
    return false;
  }
  const std::size_t expected = options.page.empty() ? 2 : 1;
  if (options.words.size() == expected) return true;
  complain(expected == 2 ? "CONFIG and URL are needed" : "--from takes no CONFIG");
  return false;
}

// CONFIG and URL are one option, since the first of the two is the one that may be
// missing.
void addExplain(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<ExplainOptions>();
  CLI::App* command = app.add_subcommand(
      "explain", "Which mapping and which server a URL goes to, and why");
  command
      ->add_option("CONFIG_URL", options->words,
                   "A file of vesk-host or httpd's configuration, unless --from is "
                   "given; then http://HOST/PATH, or a path")
      ->required()
      ->expected(1, 2)
      ->type_name("");
  command->add_option("--from", options->page,
                      "Ask a web server, by the URL of its status page");
  command->add_option("--host", options->host, "The host header, in place of the URL's");
  command->add_option("--cookie", options->cookie, "The cookie header");
  command->add_option("--method", options->method, "The method")->capture_default_str();
  command->add_flag("--all", options->all, "Show each mapping that was looked at");
  addTimeout(*command, options->timeout);
  command->callback([options, &invocation] {
    invocation.exitStatus =
        isComplete(*options) ? runExplain(*options, invocation) : kExitUsage;
  });
}

}  // namespace ctl
