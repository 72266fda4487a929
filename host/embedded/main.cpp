// vesk-host: a small web server that offers the web server API to plug-ins.
#include <signal.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "embedded/config.h"
#include "embedded/error_log.h"
#include "embedded/http_exchange.h"
#include "embedded/limit_log.h"
#include "embedded/privileges.h"
#include "embedded/server.h"
#include "http/tls_context.h"
#include "layer/critical_sections.h"
#include "layer/option_check.h"
#include "layer/process_settings.h"
#include "layer/restart_callbacks.h"
#include "layer/stages.h"

namespace host {

constexpr int kUnusable = 2;
constexpr char kVersion[] = "vesk-host/" VESK_HOST_VERSION;

// The log serves lines outside a request, too; it outlives everything that
// could write one.
static ErrorLog* processErrorLog = nullptr;
static LogFile* processAccessLog = nullptr;

static void writeProcessLine(int degree, const char* function, const char* message) {
  processErrorLog->write(degree, function, message);
}

static int refuse(const std::string& reason) {
  (void)std::fprintf(stderr, "vesk-host: %s\n", reason.c_str());
  return kUnusable;
}

static std::string readFile(const std::string& file, std::string* text) {
  std::ifstream stream(file, std::ios::binary);
  std::error_code error;
  if (!stream || std::filesystem::is_directory(file, error)) {
    return file + ": " + (stream ? "is a folder" : std::strerror(errno));
  }
  text->assign(std::istreambuf_iterator<char>(stream), {});
  return {};
}

// Relative paths, those in a plug-in's own parameters included, count from the
// folder of the file.
static std::string enterFolder(const std::string& file) {
  std::filesystem::path folder = std::filesystem::path(file).parent_path();
  std::error_code error;
  if (!folder.empty()) std::filesystem::current_path(folder, error);
  return error ? folder.string() + ": " + error.message() : std::string();
}

// The file is found from where the program was started; from then on relative
// names count from its folder, those that plug-ins open while they start, too.
static std::string loadConfig(const std::string& file, Config* config, Stages* stages) {
  std::string text;
  std::string reason = readFile(file, &text);
  if (reason.empty()) reason = enterFolder(file);
  if (reason.empty()) reason = readConfig(text, file, config);
  if (!reason.empty()) return reason;
  for (Directive& init : config->inits) stages->addInit(init);
  for (auto& [stage, directive] : config->stages) stages->add(stage, directive);
  return stages->prepare();
}

// Warnings go to whoever starts the host or checks its configuration.
static std::string checkConnector(const Config& config) {
  CheckedLines lines{{}, {}, geteuid(), getegid()};
  for (const Directive& init : config.inits) lines.inits.push_back(&init);
  for (const auto& [stage, line] : config.stages) lines.stages.emplace_back(stage, &line);
  lookUpIdentity(config.user, config.group, &lines.user, &lines.group);
  for (const Finding& finding : checkLines(lines)) {
    std::string said = finding.where + ": " + finding.text;
    if (finding.refuses) return said;
    (void)std::fprintf(stderr, "vesk-host: %s\n", said.c_str());
  }
  return {};
}

// Signals are taken by the server's loop alone; all threads inherit the mask.
static void blockSignals() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
    (void)sigaddset(&signals, number);
  }
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  (void)signal(SIGPIPE, SIG_IGN);
}

// A client needs a file, and so does the server that answers it.
static void raiseOpenFiles(const Limits& limits, ErrorLog* log) {
  constexpr rlim_t kOthers = 64;
  const rlim_t wanted =
      static_cast<rlim_t>(limits.maxConnections + limits.threads) + kOthers;
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= wanted) return;
  files.rlim_cur = std::min(wanted, files.rlim_max);
  const bool raised = setrlimit(RLIMIT_NOFILE, &files) == 0;
  if (raised && files.rlim_cur >= wanted) return;
  log->write(LOG_WARN, "vesk-host",
             "open files are limited to " + std::to_string(files.rlim_cur) +
                 ", so MaxConnections can't be reached");
}

static void tellReopening(const char* which) {
  const std::string line =
      std::string("can't open the ") + which + " log anew: " + std::strerror(errno);
  writeProcessLine(LOG_FAILURE, "vesk-host", line.c_str());
}

static void reopenLogs() {
  if (!processErrorLog->reopen()) tellReopening("error");
  if (!processAccessLog->reopen()) tellReopening("access");
}

// Serves until a signal. A plug-in's callbacks run when nobody is inside it any more:
// a request that waits for a server that never answers costs them, and nothing else.
static std::string serve(Server* server, const Limits& limits) {
  std::string reason = server->start();
  if (!reason.empty()) return reason;
  for (const std::string& address : server->addresses()) {
    (void)std::printf("listening on %s\n", address.c_str());
  }
  (void)std::fflush(stdout);
  (void)sd_notify(0, "READY=1");
  const int left = server->run(reopenLogs);
  if (left == 0) return {};
  const std::string line = std::to_string(left) + " requests hadn't ended after " +
                           std::to_string(limits.stopTimeout) + " s";
  writeProcessLine(LOG_WARN, "vesk-host", line.c_str());
  std::_Exit(0);
}

// A log that the start's user keeps for itself could not be opened anew.
static void giveLogs(const Config& config) {
  if (config.user.empty() && config.group.empty()) return;
  uid_t user = geteuid();
  gid_t group = getegid();
  lookUpIdentity(config.user, config.group, &user, &group);
  processErrorLog->giveTo(user, group);
  processAccessLog->giveTo(user, group);
}

// The addresses are taken and the logs are opened with the rights of the start; what
// belongs to plug-ins happens with those of the user.
static std::string openLogs(const Config& config) {
  auto failure = [](const std::string& where, const std::string& path) {
    return where + ": can't open \"" + path + "\": " + std::strerror(errno);
  };
  const bool follow = config.user.empty() && config.group.empty();
  if (!config.errorLog.empty() && !processErrorLog->open(config.errorLog, follow)) {
    return failure(config.errorLogWhere, config.errorLog);
  }
  if (!config.accessLog.empty() && !processAccessLog->open(config.accessLog, follow)) {
    return failure(config.accessLogWhere, config.accessLog);
  }
  return {};
}

static std::string prepare(const Config& config, Server* server, ErrorLog* log) {
  std::string reason = openLogs(config);
  if (!reason.empty()) return reason;
  reason = server->bind();
  if (!reason.empty()) return reason;
  raiseOpenFiles(config.limits, log);
  giveLogs(config);
  reason = becomeUser(config.user, config.group);
  return reason.empty() ? reason : config.userWhere + ": " + reason;
}

static int run(const Config& config, Stages* stages) {
  blockSignals();
  ErrorLog log;
  LimitLog limitLog(&log);
  LogFile accessLog(-1);
  processErrorLog = &log;
  processAccessLog = &accessLog;
  setProcessLog(writeProcessLine);
  ServerState state{&config, stages, &log, &limitLog, &accessLog, kVersion, {false}};
  std::string reason;
  {
    Server server(&state);
    reason = prepare(config, &server, &log);
    if (reason.empty()) reason = stages->runInits();
    if (reason.empty()) reason = serve(&server, config.limits);
  }
  // A callback enters the sections that its plug-in has made, and may log.
  runRestartCallbacks();
  releaseCriticalSections();
  setProcessLog(nullptr);
  return reason.empty() ? 0 : refuse(reason);
}

// What Init functions see as the server: the first listener.
static void setProcessSettings(Config* config) {
  const std::string& listener = config->listeners.front().address;
  conf_global_vars_s* settings = processSettings();
  settings->Vport = std::atoi(listener.c_str() + listener.rfind(':') + 1);
  settings->Vserver_hostname = config->serverName.data();
  setServerVersion(kVersion);
}

static std::string checkCertificates(const Config& config) {
  if (config.tls.certificate.empty()) return {};
  TlsContext unused;
  const std::string reason = openTlsContext(config.tls, &unused);
  return reason.empty() ? reason : config.tls.where + ": " + reason;
}

static int runProgram(const std::string& file, bool check) {
  Config config;
  Stages stages;
  std::string reason = loadConfig(file, &config, &stages);
  if (reason.empty()) reason = checkCertificates(config);
  if (reason.empty()) reason = checkConnector(config);
  if (!reason.empty()) return refuse(reason);
  if (check) {
    (void)std::printf("%s: the configuration is good\n", file.c_str());
    return 0;
  }
  setProcessSettings(&config);
  return run(config, &stages);
}

}  // namespace host

int main(int argc, char** argv) try {
  CLI::App app("A small web server that offers the web server API to plug-ins.",
               "vesk-host");
  std::string file;
  bool check = false;
  app.add_option("CONFIG", file, "configuration file")->required();
  app.add_flag("--check", check, "only check the configuration");
  app.set_version_flag("--version", std::string(host::kVersion));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : host::kUnusable;
  }
  return host::runProgram(file, check);
} catch (const std::exception& error) {
  return host::refuse(error.what());
}
