// vesk-ctl get: a request straight to one server.

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>

#include "ctl/command.h"
#include "ctl/display.h"
#include "ctl/json_output.h"
#include "ctl/latencies.h"
#include "ctl/options.h"
#include "ctl/page.h"
#include "ctl/server_link.h"

namespace ctl {

constexpr double kPageTimeout = 60;  // seconds; pages take longer than facts
constexpr std::int32_t kLeastError = 400;

struct GetOptions {
  std::string address;
  std::string target;
  std::string method;
  std::vector<std::string> headers;  // "Name: value"
  std::optional<std::string> data;   // "@FILE" means its bytes
  std::string output;                // empty: standard output
  bool withHead = false;
  bool failOnError = false;
  int repeat = 1;
  double timeout = kPageTimeout;
};

// Closes a file of the tool's own.
struct CloseFile {
  void operator()(std::FILE* file) const {
    if (file != stdout) (void)std::fclose(file);
  }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

static File openOutput(const GetOptions& options, const Invocation& invocation) {
  const bool unwanted = options.output.empty() && (invocation.json || options.repeat > 1);
  if (unwanted) return nullptr;
  if (options.output.empty()) return File(stdout);
  File file(std::fopen(options.output.c_str(), "wbe"));
  if (file) return file;
  throw std::runtime_error("can't write " + visible(options.output) + ": " +
                           std::strerror(errno));
}

static std::string readAll(const std::string& path) {
  std::ifstream file;
  if (path != "-") file.open(path, std::ios::binary);
  std::istream& source = path == "-" ? std::cin : file;
  std::string bytes(std::istreambuf_iterator<char>(source), {});
  if (path == "-" || file.is_open()) return bytes;
  throw std::runtime_error("can't read " + visible(path) + ": " + std::strerror(errno));
}

static std::string bodyOf(const GetOptions& options) {
  if (!options.data) return {};
  const bool isFile = !options.data->empty() && options.data->front() == '@';
  return isFile ? readAll(options.data->substr(1)) : *options.data;
}

static std::string wrongHeader(const std::string& text) {
  const std::size_t colon = text.find(':');
  const bool fine = colon != std::string::npos && colon != 0 &&
                    text.find_first_of("\r\n") == std::string::npos;
  return fine ? std::string() : "'" + visible(text) + "' is not \"Name: value\"";
}

static std::pair<std::string, std::string> splitHeader(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::size_t value = text.find_first_not_of(' ', colon + 1);
  return {text.substr(0, colon), value == std::string::npos ? "" : text.substr(value)};
}

static void addUnlessThere(Headers& headers, const char* name, const std::string& value) {
  for (const auto& [there, unused] : headers)
    if (strcasecmp(there.c_str(), name) == 0) return;
  headers.emplace_back(name, value);
}

// As a browser's request would have them, as far as the command line leaves them out.
static Headers headersOf(const GetOptions& options, const std::string& body) {
  Headers headers;
  for (const std::string& text : options.headers) headers.push_back(splitHeader(text));
  addUnlessThere(headers, "host", options.address);
  addUnlessThere(headers, "user-agent", "vesk-ctl/" VESK_VERSION);
  addUnlessThere(headers, "accept", "*/*");
  if (!options.data) return headers;
  addUnlessThere(headers, "content-type", "application/x-www-form-urlencoded");
  addUnlessThere(headers, "content-length", std::to_string(body.size()));
  return headers;
}

static void setUp(Page& page, const GetOptions& options) {
  const std::string body = bodyOf(options);
  const char* usual = options.data ? "POST" : "GET";
  page.setTarget(options.method.empty() ? usual : options.method, options.target,
                 headersOf(options, body));
  page.setBody(body);
  page.setVariable("REMOTE_ADDR", "127.0.0.1");
  page.setVariable("REMOTE_HOST", "127.0.0.1");
  const std::size_t colon = options.address.rfind(':');
  page.setVariable("SERVER_NAME", options.address.substr(0, colon));
  page.setVariable("SERVER_PORT", options.address.substr(colon + 1));
  page.setVariable("SERVER_PORT_SECURE", "0");
}

// What came of one request or many.
struct Tally {
  int requests = 0;
  std::map<std::int32_t, int> statuses;  // of whole answers
  std::map<std::string, int> failures;   // by reason
  Latencies latencies;                   // of whole answers
  std::string lastFailure;
};

static void fetchOnce(Page& page, ServerLink& link, Tally& tally) {
  ++tally.requests;
  if (page.fetch(link.server())) {
    ++tally.statuses[page.status];
    tally.latencies.add(page.millis);
    return;
  }
  const std::string& unwritten = page.writeFailure;
  tally.lastFailure = unwritten.empty() ? link.whyFailed() : "can't write: " + unwritten;
  ++tally.failures[tally.lastFailure];
}

static int statusOf(const GetOptions& options, const Tally& tally) {
  if (!tally.failures.empty()) return kExitFailure;
  const bool anyError = tally.statuses.lower_bound(kLeastError) != tally.statuses.end();
  return options.failOnError && anyError ? kExitWarning : kExitFine;
}

static Json jsonOf(const Page& page, const Tally& tally) {
  Json headers = Json::array();
  for (const auto& [name, value] : page.headers)
    headers.push_back({{"name", name}, {"value", value}});
  Json one;
  one["failure"] = tally.failures.empty() ? Json() : Json(tally.lastFailure);
  one["status"] = page.status == 0 ? Json() : Json(page.status);
  one["reason"] = page.reason;
  one["headers"] = std::move(headers);
  one["connect_ms"] = roundedMillis(page.seen().connectMillis);
  one["answer_ms"] = roundedMillis(page.millis);
  one["body_bytes"] = page.bodyBytes;
  const bool all = static_cast<std::int64_t>(page.body.size()) == page.bodyBytes;
  one["body"] = all ? textOrNull(page.body) : Json();
  return one;
}

// What of the times is told, by names.
struct Mark {
  const char* name;
  double percent;
};
constexpr Mark kMarks[] = {
    {"min", 0}, {"p50", 50}, {"p90", 90}, {"p99", 99}, {"max", 100}};

static Json jsonOf(const Tally& tally) {
  Json one = {{"requests", tally.requests}, {"answered", tally.latencies.count()}};
  one["statuses"] = Json::object();
  for (const auto& [status, count] : tally.statuses)
    one["statuses"][std::to_string(status)] = count;
  one["failures"] = Json::object();
  for (const auto& [reason, count] : tally.failures) one["failures"][reason] = count;
  for (const Mark& mark : kMarks)
    one["answer_ms"][mark.name] = roundedMillis(tally.latencies.percentile(mark.percent));
  one["answer_ms"]["mean"] = roundedMillis(tally.latencies.mean());
  return one;
}

static void printTally(const Tally& tally) {
  std::string text = std::to_string(tally.requests) + " requests, " +
                     std::to_string(tally.latencies.count()) + " answered";
  for (const auto& [status, count] : tally.statuses)
    text += "; status " + std::to_string(status) + ": " + std::to_string(count);
  print(text + "\n");
  for (const auto& [reason, count] : tally.failures)
    print(inColour(Colour::bad, std::to_string(count) + " failed: " + reason) + "\n");
  if (tally.latencies.count() == 0) return;
  char time[48];
  for (const Mark& mark : kMarks) {
    const double millis = tally.latencies.percentile(mark.percent);
    (void)std::snprintf(time, sizeof time, "%s %.2f  ", mark.name, millis);
    print(time);
  }
  (void)std::snprintf(time, sizeof time, "mean %.2f ms\n", tally.latencies.mean());
  print(time);
}

static void report(const GetOptions& options, const Invocation& invocation,
                   const Page& page, const Tally& tally) {
  const bool many = options.repeat > 1;
  if (invocation.json) printJson(many ? jsonOf(tally) : jsonOf(page, tally));
  if (many && !invocation.json) printTally(tally);
  if (!many && !tally.failures.empty())
    complain(visible(options.address) + ": " + tally.lastFailure);
}

static int runGet(const GetOptions& options, const Invocation& invocation) {
  const ServerAddress server = resolveServer(options.address);
  if (!server.failure.empty())
    throw std::runtime_error(visible(options.address) + ": " + server.failure);
  const File file = openOutput(options, invocation);
  BodyWishes wishes;
  wishes.file = file.get();
  wishes.isTerminal = file.get() == stdout && isatty(STDOUT_FILENO) == 1;
  wishes.withHead = options.withHead;
  wishes.keep = invocation.json && options.repeat == 1;
  Page page(limitsOf(options.timeout), invocation.verbose, wishes);
  setUp(page, options);
  ServerLink link(page, server.dotted);
  if (!link.server()) throw std::bad_alloc();
  Tally tally;
  while (tally.requests < options.repeat) fetchOnce(page, link, tally);
  report(options, invocation, page, tally);
  return statusOf(options, tally);
}

static void describeRequest(CLI::App& command, GetOptions& options) {
  command.add_option("SERVER", options.address, "HOST:PORT")->required();
  command.add_option("PATH", options.target, "Path of the page, with its query")
      ->required()
      ->check([](const std::string& text) {
        return text.front() == '/' ? std::string() : "a path begins with '/'";
      });
  command.add_option("-X,--request", options.method, "Method; GET, or POST with --data")
      ->type_name("METHOD");
  command.add_option("-H,--header", options.headers, "A header; may be given often")
      ->type_name("\"NAME: VALUE\"")
      ->expected(1)
      ->check(wrongHeader)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  command
      .add_option("-d,--data", options.data,
                  "Body; @FILE takes a file's bytes, @- those of standard input")
      ->type_name("TEXT");
}

static void describeAnswer(CLI::App& command, GetOptions& options) {
  command.add_flag("-i,--include", options.withHead, "Print status and headers as well");
  command.add_flag("-f,--fail", options.failOnError,
                   "Exit with 1 when the status is 400 or more");
  command.add_option("-o,--output", options.output, "Write the body to a file")
      ->type_name("FILE");
  command
      .add_option("--repeat", options.repeat,
                  "Ask so many times, one after the other, and print the times alone")
      ->check(CLI::Range(1, kMostQuestions))
      ->type_name("N");
  addTimeout(command, options.timeout);
}

void addGet(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<GetOptions>();
  CLI::App* command = app.add_subcommand("get", "A request straight to one server");
  describeRequest(*command, *options);
  describeAnswer(*command, *options);
  command->callback(
      [options, &invocation] { invocation.exitStatus = runGet(*options, invocation); });
}

}  // namespace ctl
