#include "layer/option_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "layer/option_rules.h"
#include "layer/text.h"

namespace host {

constexpr char kNoGuardsGiven[] =
    "veskinit without guards: a server or browser that misbehaves can harm others; "
    "guards=\"all\" is recommended";

static bool names(const Directive& line, std::string_view function) {
  const std::string* name = line.find("fn");
  return name && *name == function;
}

static const OptionRule* ruleOf(std::string_view option) {
  const auto rules = optionRules();
  const auto found = std::find_if(rules.begin(), rules.end(), [option](const auto& rule) {
    return rule.name == option;
  });
  return found == rules.end() ? nullptr : &*found;
}

// --- one Init line ----------------------------------------------------------------

static std::string unknownOption(std::string_view word) {
  std::string text = "unknown option \"" + std::string(word) + "\"";
  const std::string_view nearest = nearestOption(word);
  if (!nearest.empty()) text += "; did you mean \"" + std::string(nearest) + "\"?";
  return text;
}

// Only a wrong guard refuses the line: the connector has a good reading of all else,
// and sites run with it.
static void checkOption(const std::string& name, const std::string& value,
                        const std::string& where, std::vector<Finding>* findings) {
  if (name == "fn") return;
  const OptionRule* rule = ruleOf(name);
  const std::string text = rule ? judgeOption(*rule, value) : unknownOption(name);
  if (text.empty()) return;
  const bool refuses = rule && rule->kind == OptionKind::guards;
  findings->push_back({refuses, where, text});
}

static void checkSources(const Directive& init, std::vector<Finding>* findings) {
  if (init.find("bootstrap") || init.find("serverstore")) return;
  findings->push_back({false, init.where,
                       "neither bootstrap nor serverstore is given, so "
                       "no server will be found"});
}

std::vector<Finding> checkOptions(const Directive& init) {
  std::vector<Finding> findings;
  if (!names(init, "veskinit")) return findings;
  for (const auto& [name, value] : init.parameters) {
    checkOption(name, value, init.where, &findings);
  }
  if (!init.find("guards")) findings.push_back({false, init.where, kNoGuardsGiven});
  checkSources(init, &findings);
  return findings;
}

// --- the files that it names --------------------------------------------------------

// By the mode alone, as it stands for the user that requests run as.
static bool mayWrite(const struct stat& status, const CheckedLines& lines) {
  if (lines.user == 0) return true;
  if (status.st_uid == lines.user) return (status.st_mode & S_IWUSR) != 0;
  if (status.st_gid == lines.group) return (status.st_mode & S_IWGRP) != 0;
  return (status.st_mode & S_IWOTH) != 0;
}

// Whether a store that holds anything names its servers: what was written by hand may
// be any other text, and then the connector takes it for an empty list.
static bool hasStoreKey(const std::string& store) {
  constexpr std::string_view kKey = "proxyservers=";
  std::ifstream in(store);
  bool empty = true;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(kKey)) return true;
    empty = empty && (trimmed(line, " \t\r").empty() || line.front() == '#');
  }
  return empty;
}

static std::string judgeStore(const std::string& store, const CheckedLines& lines) {
  if (lines.leavesFolder && store.front() != '/') {
    return "\"" + store +
           "\" counts from the folder that the web server runs in, / for a daemon";
  }
  std::filesystem::path folder = std::filesystem::path(store).parent_path();
  if (folder.empty()) folder = ".";
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return "there is no folder " + folder.string();
  }
  const bool folderTakes = mayWrite(status, lines);
  const bool there = stat(store.c_str(), &status) == 0;
  if (there && S_ISDIR(status.st_mode)) return store + " is a folder";
  if (there && S_ISREG(status.st_mode) && !hasStoreKey(store)) {
    return store + " has no line proxyservers=, so nothing is read from it";
  }
  if (there ? mayWrite(status, lines) : folderTakes) return {};
  return "user " + std::to_string(lines.user) + " may not write " + store;
}

static void checkStore(const Directive& init, const CheckedLines& lines,
                       std::vector<Finding>* findings) {
  const std::string* store = init.find("serverstore");
  if (!store || store->empty()) return;
  const std::string text = judgeStore(*store, lines);
  if (!text.empty()) findings->push_back({false, init.where, "serverstore: " + text});
}

std::string judgeRelease(const std::string& server, const Release& running,
                         const Release& needed) {
  if (running >= needed) return {};
  const auto shown = [](const Release& one) {
    return std::to_string(one[0]) + "." + std::to_string(one[1]) + "." +
           std::to_string(one[2]);
  };
  return server + " " + shown(running) + " is too old: it must be " + shown(needed) +
         " or newer";
}

// --- all lines ------------------------------------------------------------------------

static void checkInits(const CheckedLines& lines, std::vector<Finding>* findings) {
  const Directive* first = nullptr;
  for (const Directive* init : lines.inits) {
    if (!names(*init, "veskinit")) continue;
    for (Finding& finding : checkOptions(*init)) findings->push_back(std::move(finding));
    checkStore(*init, lines, findings);
    if (first) {
      findings->push_back(
          {false, init->where,
           "veskinit stands in " + first->where + " already; the last one counts"});
    }
    first = init;
  }
}

// An option on a line whose function doesn't read it does nothing.
static void checkStray(const Directive& line, std::vector<Finding>* findings) {
  if (!names(line, "veskfilter") && !names(line, "veskservice")) return;
  for (const auto& [name, value] : line.parameters) {
    if (!ruleOf(name)) continue;
    findings->push_back({false, line.where,
                         name + " is an option of veskinit and "
                                "does nothing here"});
  }
}

// What a line with the status page may say.
struct ReportOption {
  std::string_view name;
  std::string_view value;  // the only one that means anything; empty: any
};
constexpr ReportOption kReportOptions[] = {
    {"fn", ""},        {"type", ""}, {"method", ""},   {"report", "status"},
    {"from", "local"}, {"path", ""}, {"actions", "on"}};

// What is wrong with an option of such a line; empty: nothing.
static std::string judgeReport(std::string_view name, const std::string& value) {
  for (const ReportOption& option : kReportOptions) {
    if (option.name != name) continue;
    if (name == "path" && !value.starts_with('/')) {
      return "path: \"" + value + "\" begins with no /";
    }
    if (option.value.empty() || value == option.value) return {};
    return std::string(name) + ": \"" + value + "\" means nothing, only \"" +
           std::string(option.value) + "\" does";
  }
  return "unknown option \"" + std::string(name) +
         "\" of the status page; it has report, path, from, actions";
}

static void checkReport(const Directive& line, std::vector<Finding>* findings) {
  if (!names(line, "veskservice") || !line.find("report")) return;
  for (const auto& [name, value] : line.parameters) {
    const std::string text = judgeReport(name, value);
    if (!text.empty()) findings->push_back({false, line.where, text});
  }
}

// What the connector marks its requests with must reach its service function.
static bool takesMarked(const Directive& line) {
  const std::string* type = line.find("type");
  return names(line, "veskservice") && !line.find("report") &&
         (!type || patternMatches(*type, "vesk-internal/target"));
}

struct Halves {
  bool filters = false;
  bool serves = false;
};

static Halves halvesOf(const CheckedLines& lines) {
  Halves found;
  for (const auto& [stage, line] : lines.stages) {
    const bool filter = stage == Stage::objectType && names(*line, "veskfilter");
    found.filters = found.filters || filter;
    found.serves = found.serves || (stage == Stage::service && takesMarked(*line));
  }
  return found;
}

const char* missingFunction(const CheckedLines& lines) {
  const Halves found = halvesOf(lines);
  if (found.filters == found.serves) return nullptr;
  return found.filters ? "veskservice" : "veskfilter";
}

static void checkStages(const CheckedLines& lines, const Directive& init,
                        std::vector<Finding>* findings) {
  for (const auto& [stage, line] : lines.stages) {
    checkStray(*line, findings);
    checkReport(*line, findings);
  }
  const Halves found = halvesOf(lines);
  if (!found.filters) {
    findings->push_back({false, init.where,
                         "no ObjectType line runs veskfilter, so no request will reach a "
                         "server"});
  }
  if (!found.serves) {
    findings->push_back(
        {false, init.where,
         "no Service line runs veskservice for vesk-internal/target, so no "
         "request will reach a server"});
  }
}

std::vector<Finding> checkLines(const CheckedLines& lines) {
  std::vector<Finding> findings;
  checkInits(lines, &findings);
  const auto init = std::find_if(lines.inits.begin(), lines.inits.end(),
                                 [](const auto* one) { return names(*one, "veskinit"); });
  if (init != lines.inits.end()) checkStages(lines, **init, &findings);
  return findings;
}

}  // namespace host
