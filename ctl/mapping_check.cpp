#include "ctl/mapping_check.h"

#include <algorithm>
#include <optional>

#include "ctl/display.h"
#include "layer/text.h"
#include "patterns/pattern_match.h"

namespace ctl {

// A word that stands in nobody's pattern.
constexpr char kFiller[] = "/vesk-ctl-probe";
// That are told by name; a line before all others may hide thousands.
constexpr std::size_t kMostMappings = 20;

// --- one mapping in the table
// -----------------------------------------------------------

static MatchSubject subjectOf(const mappingsTable& table, const uriPattern& pattern,
                              const std::string& uri) {
  MatchSubject subject{};
  subject.uri = uri;
  subject.strippedPath = uri;
  subject.hasHost = pattern.hasHost != 0;
  subject.host = hostOf(pattern);
  subject.ignoreSuffix = table.ignoreSuffix != 0;
  return subject;
}

// URIs that the pattern is made for: below its prefix, and the prefix itself.
static std::vector<std::string> probesOf(const uriPattern& pattern) {
  const std::string prefix(prefixOf(pattern));
  std::vector<std::string> probes = {prefix + kFiller + std::string(tailOf(pattern))};
  if (pattern.contains) probes.front() += "/x";
  if (!pattern.contains && pattern.tailLength == 0)
    probes.push_back(prefix.empty() ? "/" : prefix);
  return probes;
}

// What becomes of a URI that the pattern at `index` takes: the index of the first
// mapping that takes it; or nothing, when the pattern doesn't take it at all.
static std::optional<std::int32_t> takerOf(const mappingsTable& table, std::int32_t index,
                                           const std::string& uri) {
  const uriPattern& pattern = table.patterns[index];
  const MatchSubject subject = subjectOf(table, pattern, uri);
  if (matchPattern(pattern, subject) != PatternMatch::matched) return std::nullopt;
  const std::span patterns(table.patterns, static_cast<std::size_t>(index) + 1);
  PatternFinding found = nextFinding(patterns, 0, subject);
  while (found.match != PatternMatch::matched)
    found = nextFinding(patterns, found.index + 1, subject);
  return found.index;
}

// Why no request reaches a mapping, or "".
static std::string whyUnreached(const mappingsTable& table, std::int32_t index) {
  const uriPattern& pattern = table.patterns[index];
  if (hostOf(pattern).find('*') != std::string_view::npos)
    return "takes no request: in a host a '*' is a plain character";
  if (table.ignoreSuffix != 0 && pattern.isSuffix)
    return "is left to the web server by ignoresuffixmap";
  const std::string_view prefix = prefixOf(pattern);
  if (!pattern.contains && !prefix.empty() && prefix.front() != '/')
    return "takes no request: URIs begin with a '/'";
  std::string_view first;
  for (const std::string& uri : probesOf(pattern)) {
    const std::optional<std::int32_t> taker = takerOf(table, index, uri);
    if (taker && *taker == index) return "";
    if (taker) first = table.patterns[*taker].text;
  }
  if (first.empty()) return "";
  return "can never match: " + visible(first) + " stands before it";
}

// --- the web server's own rules
// -----------------------------------------------------------

namespace {

// What the web server takes for itself.
struct Claim {
  std::string prefix;  // of URIs; empty: all
  std::string where;
  std::string text;
};

}  // namespace

static std::string firstPath(const HttpdLine& line) {
  std::string_view rest = line.text;
  while (!rest.empty()) {
    const std::string word(host::takeWord(&rest, host::kBlanks));
    std::string path(host::trimmed(word, "\""));
    if (path.starts_with('/')) return path;
  }
  return "";
}

// The place that a line is about, or nothing: of a regular expression nobody can tell.
static std::optional<std::string> placeOf(const HttpdLine& line) {
  if (line.within("locationmatch") || line.within("if")) return std::nullopt;
  const HttpdSection* location = line.within("location");
  if (!location) return firstPath(line);
  if (location->argument.starts_with('~')) return std::nullopt;
  return location->argument;
}

static std::optional<Claim> claimOf(const HttpdLine& line) {
  const std::string word = line.word();
  std::string text;
  if (line.name == "nsapiengine" && host::equalsNoCase(word, "off"))
    text = "NSAPIEngine Off leaves it to httpd";
  if (line.name == "nsapiobjecttype" && host::equalsNoCase(line.text, "none"))
    text = "no function looks for a type here";
  if (line.name == "proxypass" && line.text.find('!') == std::string::npos)
    text = "ProxyPass takes it";
  if (line.name == "redirect" || line.name == "redirectpermanent" ||
      line.name == "redirecttemp")
    text = "it is redirected";
  const std::optional<std::string> place = placeOf(line);
  if (text.empty() || !place) return std::nullopt;
  if (const HttpdSection* virtualHost = line.within("virtualhost"))
    text += " in the virtual host " + visible(virtualHost->argument);
  const bool all = *place == "/" || place->empty();
  return Claim{all ? "" : *place, line.where, text};
}

static bool runs(const host::Directive& line, std::string_view function) {
  const std::string* name = line.find("fn");
  return name && *name == function;
}

// The function that is named first for the type that veskfilter sets gets the requests.
static void addOtherService(const Configuration& configuration,
                            std::vector<Claim>* claims) {
  for (const StageLine& line : configuration.stages) {
    if (line.stage != host::Stage::service) continue;
    if (runs(line.directive, "veskservice")) return;
    const std::string* type = line.directive.find("type");
    if (type && !host::patternMatches(*type, "vesk-internal/target")) continue;
    claims->push_back({"", line.directive.where,
                       *line.directive.find("fn") + " takes it before veskservice"});
    return;
  }
}

static bool takesWhole(const Claim& claim, const uriPattern& pattern) {
  const std::string_view prefix = prefixOf(pattern);
  const bool below =
      prefix.starts_with(claim.prefix) &&
      (claim.prefix.empty() || claim.prefix.ends_with('/') ||
       prefix.size() == claim.prefix.size() || prefix[claim.prefix.size()] == '/');
  return below && !pattern.contains;
}

// Whether a line of the engine switches it on again in a place within a claim's.
static bool isLifted(const Claim& claim, const HttpdLine& line) {
  if (line.name != "nsapiengine" || !host::equalsNoCase(line.word(), "on")) return false;
  const std::optional<std::string> place = placeOf(line);
  return !place ||
         (place->size() > claim.prefix.size() && place->starts_with(claim.prefix));
}

static std::vector<Claim> claimsOf(const Configuration& configuration) {
  const std::vector<HttpdLine>& lines = configuration.httpdLines;
  std::vector<Claim> claims;
  for (const HttpdLine& line : lines) {
    std::optional<Claim> claim = claimOf(line);
    if (!claim) continue;
    const bool lifted =
        line.name == "nsapiengine" &&
        std::any_of(lines.begin(), lines.end(),
                    [&claim](const HttpdLine& one) { return isLifted(*claim, one); });
    if (!lifted) claims.push_back(std::move(*claim));
  }
  addOtherService(configuration, &claims);
  return claims;
}

// --- errorurl
// ---------------------------------------------------------------------------

static void judgeErrorUrl(ConfiguredTable& table, const Configuration& configuration,
                          std::vector<Remark>* remarks) {
  const std::string url = configuration.option("errorurl");
  if (url.empty()) return;
  const Target target = readTarget(url);
  const std::string host = target.host.substr(0, target.host.find(':'));
  const bool isOurs = host.empty() || host == configuration.serverName;
  if (!target.failure.empty() || !isOurs) return;
  const auto explained = table.explain("GET", target, "");
  if (explained->winner < 0) return;
  remarks->push_back({Severity::error, configuration.veskinit()->where,
                      "errorurl: " + visible(url) + " is under the mapping " +
                          visible(explained->mappings[explained->winner].pattern) +
                          ": a 503 leads to itself"});
}

static Remark judgeMapping(const mappingsTable& table, std::int32_t index,
                           const std::vector<Claim>& claims) {
  const uriPattern& pattern = table.patterns[index];
  Remark remark{Severity::warning, "", whyUnreached(table, index)};
  const auto claim =
      std::find_if(claims.begin(), claims.end(),
                   [&pattern](const Claim& one) { return takesWhole(one, pattern); });
  if (remark.text.empty() && claim != claims.end())
    remark = {Severity::warning, claim->where, "is never asked for: " + claim->text};
  if (!remark.text.empty())
    remark.text = "mapping " + visible(pattern.text) + " " + remark.text;
  return remark;
}

std::vector<Remark> judgeMappings(ConfiguredTable& table,
                                  const Configuration& configuration) {
  std::vector<Remark> remarks;
  const std::vector<Claim> claims = claimsOf(configuration);
  std::size_t found = 0;
  for (std::int32_t i = 0; i < table.records().mappings->count; ++i) {
    Remark remark = judgeMapping(table.records(), i, claims);
    if (remark.text.empty() || ++found > kMostMappings) continue;
    remarks.push_back(std::move(remark));
  }
  if (found > kMostMappings)
    remarks.push_back({Severity::warning, "",
                       "the same holds for " + std::to_string(found - kMostMappings) +
                           " more mappings"});
  judgeErrorUrl(table, configuration, &remarks);
  return remarks;
}

}  // namespace ctl
