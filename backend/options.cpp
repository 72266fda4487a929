#include "backend/options.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "backend/address.h"
#include "backend/session_id.h"
#include "backend/text.h"

namespace backend {

constexpr int kUsageError = 2;
constexpr std::size_t kMaxRepId = 64;

// The texts as they stand on the command line.
struct RawOptions {
  std::string listen;
  std::string sticky = "true";
  std::string buddies = "*";
  std::vector<std::string> mappings;
};

// The message for an address that isn't ADDR:PORT; empty when it is one, which
// then stands in `options`.
static std::string splitListen(const std::string& text, Options& options) {
  const std::size_t colon = text.rfind(':');
  std::string wanted = "'" + text + "' is not ADDR:PORT with a dotted IPv4 address";
  if (colon == std::string::npos) return wanted;
  options.listenHost = text.substr(0, colon);
  if (!isDottedAddress(options.listenHost)) return wanted;
  int port = 0;
  if (!CLI::detail::lexical_cast(text.substr(colon + 1), port) || port < 0 ||
      port > kMaxPort) {
    return wanted;
  }
  options.listenPort = port;
  return {};
}

// A pattern is the key of a property line, so it must be able to stand there.
static std::string splitMapping(const std::string& text, Mapping& mapping) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    return "'" + text + "' is not PATTERN=TARGET";
  }
  if (text.front() == '#' || !isHeaderSafe(text)) {
    return "'" + text + "' can't be sent as a mapping";
  }
  mapping = {text.substr(0, equals), text.substr(equals + 1)};
  return {};
}

static std::string checkRepId(const std::string& text) {
  const bool fits = text.size() >= kRepIdLength && text.size() <= kMaxRepId;
  if (!fits) return "'" + text + "' is not 4 to 64 characters long";
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  if (text.find_first_not_of(kAllowed) != std::string::npos) {
    return "'" + text + "' may hold letters, digits, '.', '_' and '-'";
  }
  if (text.substr(0, kRepIdLength).find("TR") != std::string::npos) {
    return "'" + text + "' may not hold TR, which marks the buddies of a session";
  }
  return {};
}

// "*" stands for any server; an empty list leaves buddies out.
static std::string splitBuddies(const std::string& text, Options& options) {
  for (const std::string& name : CLI::detail::split(text, ',')) {
    if (name.empty()) continue;
    std::string wrong = name == "*" ? std::string() : checkRepId(name);
    if (!wrong.empty()) return wrong;
    options.buddies.push_back(name);
  }
  return {};
}

static void throwIfWrong(const char* option, const std::string& reason) {
  if (!reason.empty()) throw CLI::ValidationError(option, reason);
}

static void convert(const RawOptions& raw, Options& options) {
  throwIfWrong("--listen", splitListen(raw.listen, options));
  if (!options.repId.empty()) throwIfWrong("--rep-id", checkRepId(options.repId));
  throwIfWrong("--buddies", splitBuddies(raw.buddies, options));
  options.sticky = raw.sticky == "true";
  for (const std::string& text : raw.mappings) {
    Mapping mapping;
    throwIfWrong("--mapping", splitMapping(text, mapping));
    options.mappings.push_back(mapping);
  }
  if (options.mappings.empty()) {
    options.mappings = {{"/demo/*", "demo"}, {"*.jsp", "demo"}};
  }
}

static void describeBalance(CLI::App& app, Options& options, RawOptions& raw) {
  app.add_option("--weight", options.weight, "Weight of this server")
      ->type_name("N")
      ->default_val(1);
  app.add_option("--algorithm", options.algorithm, "How requests are spread")
      ->check(CLI::IsMember(
          {"ROUNDROBIN", "ROUNDROBIN_WEIGHTED", "MIN", "MAX", "RANDOM_WEIGHTED"}))
      ->default_val("ROUNDROBIN");
  app.add_option("--sticky", raw.sticky, "Whether sessions stay with their server")
      ->check(CLI::IsMember({"true", "false"}))
      ->default_val("true");
  app.add_option("--load-value", options.loadValue, "Load value to send with each reply")
      ->type_name("N");
  app.add_option("--buddies", raw.buddies,
                 "Replication ids of the servers that stand in for this one, with "
                 "commas between; * is any server")
      ->type_name("LIST")
      ->capture_default_str();
}

static void describeRest(CLI::App& app, Options& options, RawOptions& raw) {
  const CLI::Range anySeconds(std::int32_t{0}, std::numeric_limits<std::int32_t>::max());
  app.add_option("--listen", raw.listen, "Address and port; port 0 takes a free one")
      ->type_name("ADDR:PORT")
      ->required();
  app.add_option("--rep-id", options.repId,
                 "Replication id; its first 4 characters begin each session id")
      ->type_name("ID");
  app.add_option("--mapcheck", options.mapCheck, "Seconds between mapping refreshes")
      ->check(anySeconds)
      ->type_name("N")
      ->default_val(10);
  app.add_option("--proxyretryinterval", options.proxyRetryInterval,
                 "Seconds before this server is tried again once it is down")
      ->check(anySeconds)
      ->type_name("N")
      ->default_val(10);
  app.add_option("--mapping", raw.mappings,
                 "A URI pattern to serve and its target; may be given often. Without "
                 "any: /demo/*=demo and *.jsp=demo")
      ->type_name("PATTERN=TARGET")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--cluster", options.clusterFile,
                 "File with a sequence number, then one ip:port a line")
      ->type_name("FILE");
}

ParseResult parseOptions(int argc, const char* const* argv, Options& options) {
  CLI::App app("Reference Vesk application server", "vesk-backend");
  app.set_version_flag("--version", "vesk-backend " VESK_VERSION);
  RawOptions raw;
  try {
    describeRest(app, options, raw);
    describeBalance(app, options, raw);
    app.parse(argc, argv);
    convert(raw, options);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return {false, status == 0 ? 0 : kUsageError};
  }
  return {true, 0};
}

}  // namespace backend
