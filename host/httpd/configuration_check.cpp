// The configuration as a whole is judged before a server starts: what the person who
// wrote it should know is told, and nothing is refused.
#include <httpd.h>

#include <ap_mpm.h>
#include <http_log.h>
#include <unistd.h>
#include <unixd.h>

#include <exception>

#include "httpd/lines.h"
#include "httpd/mod_nsapi.h"
#include "layer/option_check.h"

APLOG_USE_MODULE(nsapi);

namespace host {

// Only root's children become somebody else, and only where mod_unixd is there.
static CheckedLines linesOfAll() {
  const bool changes =
      geteuid() == 0 && ap_unixd_config.user_id != static_cast<uid_t>(-1);
  CheckedLines lines{{}, {}, geteuid(), getegid()};
  lines.leavesFolder = true;
  if (changes) lines.user = ap_unixd_config.user_id;
  if (changes) lines.group = ap_unixd_config.group_id;
  for (const SeenLine& line : seenLines()) {
    if (line.init) {
      lines.inits.push_back(&line.directive);
    } else {
      lines.stages.emplace_back(line.stage, &line.directive);
    }
  }
  return lines;
}

static void tellLines(server_rec* main) {
  for (const Finding& found : checkLines(linesOfAll())) {
    ap_log_error(APLOG_MARK, APLOG_WARNING, 0, main, "%s: %s", found.where.c_str(),
                 found.text.c_str());
  }
}

// A module that was made for this release may be loaded by an older one.
static void tellRelease(server_rec* main) {
  constexpr Release kNeeded = {2, 4, 48};
  ap_version_t running{};
  ap_get_server_revision(&running);
  const std::string said =
      judgeRelease("httpd", {running.major, running.minor, running.patch}, kNeeded);
  if (!said.empty()) ap_log_error(APLOG_MARK, APLOG_WARNING, 0, main, "%s", said.c_str());
}

// The lines of a virtual host take the place of the main server's, all of them.
static void tellHost(server_rec* main, server_rec* virtualHost) {
  CheckedLines lines{};
  for (const SeenLine& line : seenLines()) {
    const bool own = line.server == virtualHost && !line.init;
    if (own) lines.stages.emplace_back(line.stage, &line.directive);
  }
  const char* missing = missingFunction(lines);
  if (!missing) return;
  ap_log_error(APLOG_MARK, APLOG_WARNING, 0, main,
               "%s: the virtual host has lines of its own, and none of them runs %s",
               lines.stages.front().second->where.c_str(), missing);
}

// What several child processes don't share.
static void tellChildren(server_rec* main) {
  int most = 1;
  if (ap_mpm_query(AP_MPMQ_MAX_DAEMONS, &most) != APR_SUCCESS || most <= 1) return;
  ap_log_error(APLOG_MARK, APLOG_WARNING, 0, main,
               "up to %d child processes at once: each has servers, connections and "
               "limits of its own; one with many threads is recommended",
               most);
}

static bool anyInit() {
  for (const SeenLine& line : seenLines()) {
    if (line.init) return true;
  }
  return false;
}

}  // namespace host

// A configuration without Init lines runs no plug-in that could mind.
int nsapiCheckConfiguration(apr_pool_t*, apr_pool_t*, apr_pool_t*, server_rec* main) try {
  if (!host::anyInit()) return OK;
  host::tellRelease(main);
  host::tellLines(main);
  for (server_rec* one = main->next; one; one = one->next) host::tellHost(main, one);
  host::tellChildren(main);
  return OK;
} catch (const std::exception&) {
  return HTTP_INTERNAL_SERVER_ERROR;
}
