#include "layer/option_rules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <utility>
#include <vector>

#include "context/guard_names.h"
#include "layer/text.h"

namespace host {

// Seconds that the connector can count in milliseconds.
constexpr std::int64_t kMaxSeconds = INT_MAX / 1000;

// Waits beyond this, in whole half thousands, were most likely meant as milliseconds.
constexpr std::int64_t kSuspiciousSeconds = 1000;
constexpr std::int64_t kSuspiciousStep = 500;

constexpr OptionRule kRules[] = {
    {"bootstrap", OptionKind::address, 0, 0, {}},
    {"serverstore", OptionKind::path, 0, 0, {}},
    {"guards", OptionKind::guards, 0, 0, {}},
    {"proxyretryinterval", OptionKind::seconds, 0, INT_MAX,
     "what the servers say, or 600"},
    {"connecttimeout", OptionKind::seconds, -1, kMaxSeconds, {}},
    {"sendtimeout", OptionKind::seconds, -1, kMaxSeconds, {}},
    {"recvtimeout", OptionKind::seconds, -1, kMaxSeconds, {}},
    {"idletimeout", OptionKind::seconds, 0, kMaxSeconds, "no limit"},
    {"maintenancetimeout", OptionKind::seconds, 0, kMaxSeconds, "the default"},
    {"requesttimeout", OptionKind::seconds, 0, kMaxSeconds, "no limit"},
    {"maxperserver", OptionKind::count, 0, kMaxSeconds, "no limit"},
    {"errorurl", OptionKind::url, 0, 0, {}},
    {"ignoresuffixmap", OptionKind::anyTrue, 0, 0, {}},
    {"apialloc", OptionKind::anyTrue, 0, 0, {}},
    {"events", OptionKind::exactTrue, 0, 0, {}},
    {"metrics", OptionKind::exactTrue, 0, 0, {}},
    {"verbose", OptionKind::exactTrue, 0, 0, {}},
    {"traceflags", OptionKind::hex, 0, 0, {}},
};

std::span<const OptionRule> optionRules() {
  return kRules;
}

static std::string quoted(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

static std::string judgeNumber(const OptionRule& rule, std::string_view value) {
  const bool negative = value.starts_with('-');
  const std::int64_t size = numberOf(value.substr(negative ? 1 : 0));
  const char* what =
      rule.kind == OptionKind::seconds ? " is no number of seconds" : " is no number";
  if (size < 0) return quoted(value) + what;
  const std::int64_t number = negative ? -size : size;
  if (number < rule.least || number > rule.most) {
    return quoted(value) + " is not from " + std::to_string(rule.least) + " to " +
           std::to_string(rule.most);
  }
  if (number == 0 && rule.zero.empty()) return "0 leaves no time at all";
  const bool suspicious = rule.kind == OptionKind::seconds &&
                          number >= kSuspiciousSeconds && number % kSuspiciousStep == 0;
  if (suspicious) return quoted(value) + " counts seconds, and looks like milliseconds";
  return {};
}

static std::string judgeExactTrue(std::string_view value) {
  if (value == "true" || value == "false") return {};
  if (!equalsNoCase(value, "true")) return quoted(value) + " means off; true means on";
  return quoted(value) + " means off: the word is true, in lower case";
}

static std::string judgeAnyTrue(std::string_view value) {
  if (equalsNoCase(value, "true") || equalsNoCase(value, "false")) return {};
  return quoted(value) + " is neither true nor false";
}

static std::string judgeHex(std::string_view value) {
  const bool prefixed = value.starts_with("0x") || value.starts_with("0X");
  if (numberOf(value.substr(prefixed ? 2 : 0), 16) >= 0) return {};
  return quoted(value) + " is no hexadecimal number";
}

// The connector takes one address in dotted notation, and looks no name up.
static std::string judgeAddress(std::string_view value) {
  constexpr std::int64_t kMaxPort = 65535;
  if (value.find("://") != value.npos)
    return quoted(value) + " is a URL; it must be ip:port";
  if (value.find_first_of(", ;") != value.npos) {
    return quoted(value) + " must be one address; that server names the others";
  }
  const std::size_t colon = value.rfind(':');
  if (colon == value.npos) return quoted(value) + " has no port; it must be ip:port";
  const std::int64_t port = numberOf(value.substr(colon + 1));
  if (port < 1 || port > kMaxPort) return quoted(value) + " has no port from 1 to 65535";
  in_addr address{};
  const std::string host(value.substr(0, colon));
  if (inet_pton(AF_INET, host.c_str(), &address) == 1) return {};
  return quoted(value) +
         " must begin with an address such as 10.0.0.1: names aren't looked up";
}

static std::string judgeUrl(std::string_view value) {
  const bool absolute = value.starts_with("http://") || value.starts_with("https://");
  if (absolute || value.starts_with('/')) return {};
  return quoted(value) +
         " is neither a URL with http:// or https:// nor a path with / first";
}

static std::string judgeGuards(std::string_view value) {
  const GuardChoice choice = readGuards(value);
  if (choice.unknown.empty()) return {};
  std::string names = "all, none";
  for (const GuardRow& row : kGuards) names.append(", ").append(row.name);
  return "unknown name " + quoted(choice.unknown) + "; known are " + names;
}

static std::string judgeValue(const OptionRule& rule, std::string_view value) {
  switch (rule.kind) {
    case OptionKind::seconds:
    case OptionKind::count:
      return judgeNumber(rule, value);
    case OptionKind::exactTrue:
      return judgeExactTrue(value);
    case OptionKind::anyTrue:
      return judgeAnyTrue(value);
    case OptionKind::hex:
      return judgeHex(value);
    case OptionKind::address:
      return judgeAddress(value);
    case OptionKind::path:
      return value.empty() ? "names no file" : "";
    case OptionKind::url:
      return judgeUrl(value);
    case OptionKind::guards:
      return judgeGuards(value);
  }
  return {};
}

std::string judgeOption(const OptionRule& rule, std::string_view value) {
  const std::string found = judgeValue(rule, value);
  return found.empty() ? found : std::string(rule.name) + ": " + found;
}

// How many letters must be put in, left out or changed to make one word of the other;
// upper and lower case are the same.
static std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const bool same = equalsNoCase(a.substr(i - 1, 1), b.substr(j - 1, 1));
      const std::size_t changed = diagonal + (same ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
}

std::string_view nearestOption(std::string_view word) {
  constexpr std::size_t kNear = 3;
  // No option has a name half as long, and the distance takes a step for each pair of
  // letters.
  constexpr std::size_t kLongestWord = 64;
  if (word.size() > kLongestWord) return {};
  const auto* nearest = std::min_element(
      std::begin(kRules), std::end(kRules), [word](const auto& a, const auto& b) {
        return distance(word, a.name) < distance(word, b.name);
      });
  const std::size_t limit = std::min(kNear, word.size() / 2);
  return distance(word, nearest->name) <= limit ? nearest->name : std::string_view();
}

}  // namespace host
