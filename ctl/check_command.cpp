// vesk-ctl check: whether a web server can start with a configuration, and whether the
// servers behind it will do.

#include <algorithm>
#include <memory>

#include "ctl/command.h"
#include "ctl/configured_table.h"
#include "ctl/display.h"
#include "ctl/json_output.h"
#include "ctl/mapping_check.h"
#include "ctl/options.h"
#include "ctl/server_check.h"

namespace ctl {

struct CheckOptions {
  std::string file;
  bool strict = false;
  bool offline = false;
  double timeout = kDefaultTimeout;
};

// All that was found out.
struct Report {
  std::vector<Remark> remarks;
  std::vector<ServerFacts> servers;
  std::int32_t mappings = 0;
};

static void checkLines(const Configuration& configuration, Report* report) {
  for (const host::Finding& finding : checkConfiguration(configuration)) {
    const Severity severity = finding.refuses ? Severity::error : Severity::warning;
    report->remarks.push_back({severity, visible(finding.where), visible(finding.text)});
  }
}

static void add(std::vector<Remark> more, Report* report) {
  for (Remark& remark : more) report->remarks.push_back(std::move(remark));
}

static void checkServers(const Configuration& configuration, const CheckOptions& options,
                         const Invocation& invocation, Report* report) {
  Visit visit;
  visit.limits = limitsOf(options.timeout);
  visit.verbose = invocation.verbose;
  ConfiguredTable table(configuration, visit.limits, invocation.verbose);
  report->servers = gatherAll(addressesOf(configuration, table), visit);
  report->mappings = table.records().mappings->count;
  add(judgeServers(report->servers), report);
  add(judgeMappings(table, configuration), report);
  if (table.source().empty())
    report->remarks.push_back(
        {Severity::error, "", "no server is found: each request gets a 503 or a file"});
}

static int statusOf(const Report& report, const CheckOptions& options) {
  int status = kExitFine;
  for (const Remark& remark : report.remarks) {
    const bool bad = options.strict || remark.severity == Severity::error;
    status = std::max<int>(status, bad ? kExitFailure : kExitWarning);
  }
  return status;
}

static const char* nameOf(Severity severity) {
  return severity == Severity::error ? "error" : "warning";
}

static std::ptrdiff_t countOf(const Report& report, Severity severity) {
  return std::count_if(
      report.remarks.begin(), report.remarks.end(),
      [severity](const Remark& one) { return one.severity == severity; });
}

static std::ptrdiff_t countAnswering(const Report& report) {
  return std::count_if(report.servers.begin(), report.servers.end(),
                       [](const ServerFacts& one) { return one.answers(); });
}

static void printText(const Report& report, const CheckOptions& options) {
  Table rows;
  for (const Remark& remark : report.remarks) {
    const Colour colour =
        remark.severity == Severity::error ? Colour::bad : Colour::warning;
    const std::string where = remark.where.empty() ? "" : remark.where + ": ";
    rows.add({{nameOf(remark.severity), colour}, {where + remark.text}});
  }
  print(rows.text());
  if (!options.offline)
    print(std::to_string(countAnswering(report)) + " of " +
          std::to_string(report.servers.size()) + " servers answer, with " +
          std::to_string(report.mappings) + " mappings; ");
  print("errors: " + std::to_string(countOf(report, Severity::error)) +
        ", warnings: " + std::to_string(countOf(report, Severity::warning)) + "\n");
}

static Json jsonOf(const Report& report, int status) {
  Json remarks = Json::array();
  for (const Remark& remark : report.remarks)
    remarks.push_back({{"severity", nameOf(remark.severity)},
                       {"where", remark.where},
                       {"text", remark.text}});
  Json servers = Json::array();
  for (const ServerFacts& server : report.servers)
    servers.push_back({{"server", server.name},
                       {"ok", server.answers()},
                       {"failure", server.answers() ? Json() : Json(server.failure)}});
  return {{"remarks", remarks},
          {"servers", servers},
          {"mappings", report.mappings},
          {"status", status}};
}

static int runCheck(const CheckOptions& options, const Invocation& invocation) {
  const Configuration configuration = readConfiguration(options.file);
  Report report;
  checkLines(configuration, &report);
  if (!options.offline && configuration.veskinit())
    checkServers(configuration, options, invocation, &report);
  const int status = statusOf(report, options);
  if (invocation.json) {
    printJson(jsonOf(report, status));
  } else {
    printText(report, options);
  }
  return status;
}

void addCheck(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* command = app.add_subcommand(
      "check", "Options, files and servers of a configuration: what can't be right");
  command
      ->add_option("CONFIG", options->file,
                   "A file of vesk-host, or httpd's configuration")
      ->required();
  command->add_flag("--strict", options->strict, "Take warnings for errors");
  command->add_flag("--offline", options->offline, "Ask no server");
  addTimeout(*command, options->timeout);
  command->callback(
      [options, &invocation] { invocation.exitStatus = runCheck(*options, invocation); });
}

}  // namespace ctl
