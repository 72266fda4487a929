// vesk-host: a small web server that offers the web server API to plug-ins.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
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
#include "embedded/server.h"
#include "layer/critical_sections.h"
#include "layer/option_check.h"
#include "layer/process_settings.h"
#include "layer/restart_callbacks.h"
#include "layer/stages.h"

namespace host {

constexpr int kUnusable = 2;
constexpr char kVersion[] = "vesk-host/" VESK_HOST_VERSION;

// How often a stopping host looks whether the last request has ended.
constexpr timespec kStopPoll{0, 20000000};

// The log serves lines outside a request, too; it outlives everything that
// could write one.
static ErrorLog* processErrorLog = nullptr;

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
static std::string checkInits(const Config& config) {
  for (const Directive& init : config.inits) {
    const OptionFindings found = checkOptions(init);
    if (!found.reason.empty()) return init.where + ": " + found.reason;
    if (found.warning.empty()) continue;
    (void)std::fprintf(stderr, "vesk-host: %s: %s\n", init.where.c_str(),
                       found.warning.c_str());
  }
  return {};
}

static void waitForSignal(const sigset_t& signals) {
  int signal = 0;
  while (sigwait(&signals, &signal) != 0) {
  }
}

// A second signal ends the process at once, with whatever is in progress.
static void waitForRequests(const Server& server, const sigset_t& signals) {
  while (server.running() > 0) {
    if (sigtimedwait(&signals, nullptr, &kStopPoll) > 0) std::_Exit(1);
  }
}

static std::string serveUntilStopped(ServerState* state, const sigset_t& signals) {
  Server server(state);
  std::string reason = server.start();
  if (!reason.empty()) return state->config->listeners.front().second + ": " + reason;
  for (const std::string& address : server.addresses()) {
    (void)std::printf("listening on %s\n", address.c_str());
  }
  (void)std::fflush(stdout);
  waitForSignal(signals);
  server.stopListening();
  waitForRequests(server, signals);
  server.stop();
  return {};
}

// Signals are taken by sigtimedwait alone; all threads inherit the mask.
static sigset_t blockSignals() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  (void)sigaddset(&signals, SIGTERM);
  (void)sigaddset(&signals, SIGINT);
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  (void)signal(SIGPIPE, SIG_IGN);
  return signals;
}

static int run(const Config& config, Stages* stages) {
  ErrorLog log;
  if (!config.errorLog.empty() && !log.open(config.errorLog)) {
    return refuse(config.errorLogWhere + ": can't open \"" + config.errorLog +
                  "\": " + std::strerror(errno));
  }
  processErrorLog = &log;
  setProcessLog(writeProcessLine);
  ServerState state{&config, stages, &log, kVersion, {0}, {false}};
  sigset_t signals = blockSignals();
  std::string reason = stages->runInits();
  if (reason.empty()) reason = serveUntilStopped(&state, signals);
  // A callback enters the sections that its plug-in has made, and may log.
  runRestartCallbacks();
  releaseCriticalSections();
  setProcessLog(nullptr);
  return reason.empty() ? 0 : refuse(reason);
}

// What Init functions see as the server: the first listener.
static void setProcessSettings(Config* config) {
  const std::string& listener = config->listeners.front().first;
  conf_global_vars_s* settings = processSettings();
  settings->Vport = std::atoi(listener.c_str() + listener.rfind(':') + 1);
  settings->Vserver_hostname = config->serverName.data();
  setServerVersion(kVersion);
}

static int runProgram(const std::string& file, bool check) {
  Config config;
  Stages stages;
  std::string reason = loadConfig(file, &config, &stages);
  if (reason.empty()) reason = checkInits(config);
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
