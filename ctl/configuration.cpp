#include "ctl/configuration.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>

#include "embedded/config.h"
#include "embedded/privileges.h"
#include "layer/text.h"

namespace ctl {

using host::Directive;
using host::Finding;
using host::Stage;

static bool runs(const Directive& line, std::string_view function) {
  const std::string* name = line.find("fn");
  return name && *name == function;
}

// With several the last one counts.
const Directive* Configuration::veskinit() const {
  const auto found =
      std::find_if(inits.rbegin(), inits.rend(),
                   [](const Directive& line) { return runs(line, "veskinit"); });
  return found == inits.rend() ? nullptr : &*found;
}

std::string Configuration::option(const std::string& name) const {
  const Directive* line = veskinit();
  const std::string* value = line ? line->find(name) : nullptr;
  return value ? *value : std::string();
}

// Only a file of vesk-host has these lines; httpd has no such directives.
static bool isOfVeskHost(const std::string& text) {
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::string_view rest = host::trimmed(line, host::kBlanks);
    const std::string_view name = host::takeWord(&rest, host::kBlanks);
    if (name == "Init" || name == "<Object") return true;
  }
  return false;
}

// --- vesk-host ------------------------------------------------------------------------

// Its relative paths count from the folder that the program is started in. Nobody knows
// that here: it may be the working folder, and if that can't be, the file's own.
static host::Config readInItsFolder(const std::string& text, const std::string& file,
                                    std::string* reason) {
  host::Config config;
  *reason = host::readConfig(text, file, &config);
  const std::filesystem::path folder = std::filesystem::absolute(file).parent_path();
  if (reason->empty() || folder == std::filesystem::current_path()) return config;
  std::filesystem::current_path(folder);
  host::Config second;
  *reason = host::readConfig(text, file, &second);
  return second;
}

static void readVeskHost(const std::string& text, const std::string& file,
                         Configuration* configuration) {
  std::string reason;
  const host::Config config = readInItsFolder(text, file, &reason);
  if (!reason.empty()) {
    const std::size_t end = reason.find(": ");
    configuration->findings.push_back(
        {true, reason.substr(0, end), reason.substr(end + 2)});
  }
  configuration->inits.assign(config.inits.begin(), config.inits.end());
  for (const auto& [stage, line] : config.stages)
    configuration->stages.push_back({stage, line, {}});
  configuration->serverName = config.serverName;
  host::lookUpIdentity(config.user, config.group, &configuration->user,
                       &configuration->group);
}

// --- httpd ----------------------------------------------------------------------------

struct StageName {
  const char* name;
  Stage stage;
};

constexpr StageName kStageNames[] = {{"nsapinametrans", Stage::nameTrans},
                                     {"nsapiobjecttype", Stage::objectType},
                                     {"nsapiservice", Stage::service}};

// False when the line can't be read, which is told.
static bool readParameters(const HttpdLine& line, Directive* directive,
                           Configuration* configuration) {
  directive->where = line.where;
  std::string reason = host::parseParameters(line.text, directive);
  if (reason.empty() && !directive->find("fn")) reason = "the directive has no fn";
  if (reason.empty()) return true;
  configuration->findings.push_back({true, line.where, reason});
  return false;
}

static void takeFunctionLine(const HttpdLine& line, Configuration* configuration) {
  const HttpdSection* virtualHost = line.within("virtualhost");
  Directive directive;
  if (line.name == "nsapiinit") {
    if (readParameters(line, &directive, configuration))
      configuration->inits.push_back(std::move(directive));
    return;
  }
  for (const StageName& row : kStageNames) {
    if (line.name != row.name || host::equalsNoCase(line.text, "none")) continue;
    if (readParameters(line, &directive, configuration))
      configuration->stages.push_back(
          {row.stage, std::move(directive), virtualHost ? *virtualHost : HttpdSection{}});
  }
}

// "#33" is a number, all else a name.
static bool readNumber(const std::string& word, unsigned* number) {
  if (!word.starts_with('#')) return false;
  const char* end = word.data() + word.size();
  return std::from_chars(word.data() + 1, end, *number).ptr == end;
}

static void takeIdentity(const HttpdLine& line, Configuration* configuration) {
  const std::string word = line.word();
  unsigned number = 0;
  const bool isNumber = readNumber(word, &number);
  if (line.name == "user") {
    const passwd* found = isNumber ? nullptr : getpwnam(word.c_str());
    if (found) configuration->user = found->pw_uid;
    if (isNumber) configuration->user = number;
  }
  if (line.name == "group") {
    const ::group* found = isNumber ? nullptr : getgrnam(word.c_str());
    if (found) configuration->group = found->gr_gid;
    if (isNumber) configuration->group = number;
  }
}

static void takeServerName(const HttpdLine& line, Configuration* configuration) {
  if (line.name != "servername" || !line.sections.empty()) return;
  std::string name = line.word();
  if (const std::size_t scheme = name.find("://"); scheme != std::string::npos)
    name.erase(0, scheme + 3);
  configuration->serverName = name.substr(0, name.find(':'));
}

// All directives of the module; httpd knows no other by such a name.
constexpr std::string_view kDirectives[] = {
    "nsapiinit",     "nsapinametrans", "nsapiobjecttype",    "nsapiservice",
    "nsapiengine",   "nsapifiles",     "nsapierroroverride", "nsapiclientnames",
    "nsapitlsfront", "nsapienvvar",    "nsapimapping"};

static void checkName(const HttpdLine& line, Configuration* configuration) {
  const bool known = std::find(std::begin(kDirectives), std::end(kDirectives),
                               line.name) != std::end(kDirectives);
  if (line.name.starts_with("nsapi") && !known)
    configuration->findings.push_back(
        {true, line.where, "unknown directive \"" + line.name + "\""});
}

static void readHttpd(const std::string& file, Configuration* configuration) {
  HttpdLines all = readHttpdLines(file);
  for (const HttpdFault& fault : all.faults)
    configuration->findings.push_back({true, fault.where, fault.text});
  for (const HttpdLine& line : all.lines) {
    checkName(line, configuration);
    takeFunctionLine(line, configuration);
    takeIdentity(line, configuration);
    takeServerName(line, configuration);
  }
  configuration->httpdLines = std::move(all.lines);
}

Configuration readConfiguration(const std::string& file) {
  Configuration configuration;
  configuration.user = geteuid();
  configuration.group = getegid();
  const std::string text = readWholeFile(file);
  configuration.isHttpd = !isOfVeskHost(text);
  if (configuration.isHttpd) {
    readHttpd(file, &configuration);
  } else {
    readVeskHost(text, file, &configuration);
  }
  return configuration;
}

// --- check ----------------------------------------------------------------------------

static host::CheckedLines linesOf(const Configuration& configuration) {
  host::CheckedLines lines{{}, {}, configuration.user, configuration.group};
  for (const Directive& line : configuration.inits) lines.inits.push_back(&line);
  for (const StageLine& line : configuration.stages)
    lines.stages.emplace_back(line.stage, &line.directive);
  lines.leavesFolder = configuration.isHttpd;
  return lines;
}

static std::vector<HttpdSection> virtualHostsOf(const Configuration& configuration) {
  std::set<std::string> places;
  std::vector<HttpdSection> sections;
  for (const StageLine& line : configuration.stages) {
    const HttpdSection& one = line.virtualHost;
    if (!one.name.empty() && places.insert(one.where).second) sections.push_back(one);
  }
  return sections;
}

// The lines of a virtual host take the place of the main server's, all of them. Several
// may have the same address, so that it is their place in the file that counts.
static void checkVirtualHosts(const Configuration& configuration,
                              std::vector<Finding>* findings) {
  for (const HttpdSection& section : virtualHostsOf(configuration)) {
    host::CheckedLines lines{{}, {}, 0, 0};
    for (const StageLine& line : configuration.stages) {
      if (line.virtualHost.where == section.where)
        lines.stages.emplace_back(line.stage, &line.directive);
    }
    const char* missing = host::missingFunction(lines);
    if (!missing) continue;
    findings->push_back({false, lines.stages.front().second->where,
                         "the virtual host " + section.argument +
                             " has lines of its own, and none of them runs " + missing});
  }
}

namespace {

// How httpd spreads its workers over processes.
struct Children {
  std::string where;  // the last line that tells
  int threads;
  int workers;
  int most;  // child processes
};

}  // namespace

// What httpd runs with where no line says otherwise.
static Children usualChildren(const Configuration& configuration) {
  for (const HttpdLine& line : configuration.httpdLines) {
    if (line.name == "loadmodule" && line.word() == "mpm_prefork_module")
      return {line.where, 1, 256, 256};
  }
  return {"", 25, 400, 16};
}

// Prefork ignores what is said of threads.
static Children childrenOf(const Configuration& configuration) {
  Children found = usualChildren(configuration);
  const bool prefork = found.threads == 1;
  for (const HttpdLine& line : configuration.httpdLines) {
    int* number = nullptr;
    if (line.name == "threadsperchild" && !prefork) number = &found.threads;
    if (line.name == "maxrequestworkers" || line.name == "maxclients")
      number = &found.workers;
    if (line.name == "serverlimit") number = &found.most;
    if (!number) continue;
    *number = std::atoi(line.word().c_str());
    found.where = line.where;
  }
  return found;
}

static void checkChildren(const Configuration& configuration,
                          std::vector<Finding>* findings) {
  const Children found = childrenOf(configuration);
  if (found.threads < 1 || found.workers <= found.threads || found.most <= 1) return;
  const int wanted = (found.workers - 1) / found.threads + 1;
  const int children = std::min(wanted, found.most);
  findings->push_back({false, found.where,
                       "up to " + std::to_string(children) +
                           " child processes at once: each has servers, connections and "
                           "limits of its own; one with many threads is recommended"});
}

std::vector<Finding> checkConfiguration(const Configuration& configuration) {
  std::vector<Finding> findings = configuration.findings;
  for (Finding& one : host::checkLines(linesOf(configuration)))
    findings.push_back(std::move(one));
  if (!configuration.veskinit()) {
    if (configuration.findings.empty())
      findings.push_back({true, "", "no line runs veskinit"});
    return findings;
  }
  if (configuration.isHttpd) {
    checkVirtualHosts(configuration, &findings);
    checkChildren(configuration, &findings);
  }
  return findings;
}

}  // namespace ctl
