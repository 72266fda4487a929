#include "layer/process_settings.h"

#include <atomic>

namespace host {

// Atomic, since a thread that a plug-in has started may log while the web server
// takes its log away at the end.
static std::atomic<LogFunction> logFunction{nullptr};
static std::atomic<const char*> version{"host"};

// The record's texts are char* because the API's are.
static char defaultHostName[] = "localhost";
static conf_global_vars_s settings{0, defaultHostName, 0};

void setProcessLog(LogFunction log) {
  logFunction = log;
}

void processLog(int degree, const char* function, const char* message) {
  LogFunction log = logFunction;
  if (log) log(degree, function, message);
}

conf_global_vars_s* processSettings() {
  return &settings;
}

void setServerVersion(const char* text) {
  version = text;
}

const char* serverVersion() {
  return version;
}

}  // namespace host
