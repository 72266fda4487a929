#include "httpd/log.h"

#include <http_log.h>

#include <cstring>
#include <iterator>

#include "httpd/mod_nsapi.h"

APLOG_USE_MODULE(nsapi);

namespace host {

// By degree: LOG_WARN to LOG_VERBOSE. What a plug-in reports of itself is a
// notice, as httpd's own lines about its start are.
constexpr int kLevels[] = {APLOG_WARNING, APLOG_ERR,    APLOG_ERR,  APLOG_ERR,
                           APLOG_CRIT,    APLOG_NOTICE, APLOG_DEBUG};

static int levelOf(int degree) {
  bool known = degree >= 0 && degree < static_cast<int>(std::size(kLevels));
  return known ? kLevels[degree] : APLOG_ERR;
}

// Some plug-ins bring the blank between name and message with the name.
static const char* blankBehind(const char* function) {
  std::size_t size = std::strlen(function);
  return size == 0 || function[size - 1] == ' ' ? "" : " ";
}

void logLine(request_rec* r, int degree, const char* function, const char* message) {
  ap_log_rerror(APLOG_MARK, levelOf(degree), 0, r, "%s%s%s", function,
                blankBehind(function), message);
}

void logLine(server_rec* server, int degree, const char* function, const char* message) {
  ap_log_error(APLOG_MARK, levelOf(degree), 0, server, "%s%s%s", function,
               blankBehind(function), message);
}

}  // namespace host
