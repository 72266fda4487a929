#include "httpd/lines.h"

#include <apr_strings.h>
#include <http_config.h>

#include <exception>
#include <map>
#include <string>
#include <utility>

#include "httpd/config.h"
#include "httpd/front.h"
#include "httpd/mod_nsapi.h"
#include "httpd/place.h"
#include "layer/builtins.h"
#include "layer/directive.h"
#include "layer/functions.h"
#include "layer/option_check.h"
#include "layer/text.h"

namespace host {

constexpr char kOutOfMemory[] = "out of memory";

// The places of the Init functions, by function: each runs once.
static std::map<FuncPtr, std::string>& initPlaces() {
  static std::map<FuncPtr, std::string> places;
  return places;
}

static std::deque<SeenLine>& keptLines() {
  static std::deque<SeenLine> lines;
  return lines;
}

const std::deque<SeenLine>& seenLines() {
  return keptLines();
}

static apr_status_t deleteStages(void* stages) {
  delete static_cast<Stages*>(stages);
  return APR_SUCCESS;
}

static apr_status_t forgetModules(void*) {
  forgetFunctions();
  unloadModules();
  initPlaces().clear();
  keptLines().clear();
  return APR_SUCCESS;
}

static Stages* madeStages(apr_pool_t* pool, Stages** stages) {
  if (!*stages) {
    *stages = new Stages;
    apr_pool_cleanup_register(pool, *stages, deleteStages, apr_pool_cleanup_null);
  }
  return *stages;
}

static std::string absolutePath(const cmd_parms* cmd, const std::string& path) {
  const char* absolute = ap_server_root_relative(cmd->temp_pool, path.c_str());
  return absolute ? absolute : path;
}

// Relative paths count from ServerRoot, as those of httpd's own directives do.
static void completePath(const cmd_parms* cmd, const Builtin& builtin, Directive* d) {
  const std::string* path = builtin.path ? d->find(builtin.path) : nullptr;
  if (path) d->set(builtin.path, absolutePath(cmd, *path));
}

static std::string readDirective(const cmd_parms* cmd, const char* text, Directive* d) {
  d->where = std::string(cmd->directive->filename) + ":" +
             std::to_string(cmd->directive->line_num);
  std::string reason = parseParameters(text, d);
  if (!reason.empty()) return reason;
  const Builtin* builtin = builtinOf(functionOf(*d));
  if (builtin) completePath(cmd, *builtin, d);
  // Without names of index files: mod_dir finds those by what httpd is told.
  return completeBuiltin(d, "");
}

// Null for an empty reason. httpd keeps the text as long as the process.
static const char* answer(cmd_parms* cmd, const std::string& reason) {
  if (reason.empty()) return nullptr;
  return apr_pstrcat(cmd->pool, cmd->cmd->name, ": ", reason.c_str(), nullptr);
}

static std::string checkRunsOnce(const Directive& d) {
  FuncPtr function = functionOf(d);
  const Builtin* builtin = builtinOf(function);
  if (!function || (builtin && builtin->runsWhenRead)) return {};
  auto [place, fresh] = initPlaces().emplace(function, d.where);
  if (fresh) return {};
  return "\"" + *d.find("fn") + "\" runs once in a process, and stands in " +
         place->second + " already";
}

static std::string refusal(const Directive& init) {
  for (const Finding& found : checkOptions(init)) {
    if (found.refuses) return found.text;
  }
  return {};
}

static std::string addInitLine(cmd_parms* cmd, const char* text) {
  Directive d;
  std::string reason = readDirective(cmd, text, &d);
  if (reason.empty()) reason = checkRunsOnce(d);
  if (reason.empty()) reason = refusal(d);
  if (!reason.empty()) return reason;
  keptLines().push_back({cmd->server, true, Stage::nameTrans, d});
  ServerConfig* config = configOf(cmd->server);
  return madeStages(cmd->pool, &config->inits)->addPreparedInit(std::move(d));
}

// "none" is no line: it takes those away that would run without it.
static std::string addLine(cmd_parms* cmd, Stages* stages, Stage stage,
                           const char* text) {
  if (equalsNoCase(trimmed(text, kBlanks), "none")) return {};
  Directive d;
  std::string reason = readDirective(cmd, text, &d);
  if (!reason.empty()) return reason;
  keptLines().push_back({cmd->server, false, stage, d});
  return stages->addPrepared(stage, std::move(d));
}

static std::string addServerLine(cmd_parms* cmd, Stage stage, const char* text) {
  ServerConfig* config = configOf(cmd->server);
  config->stages = madeStages(cmd->pool, &config->own);
  return addLine(cmd, config->stages, stage, text);
}

static std::string setFront(cmd_parms* cmd, const char* text) {
  Directive line;
  std::string reason = parseParameters(text, &line);
  if (!reason.empty()) return reason;
  return readFront(cmd->pool, std::move(line), &configOf(cmd->server)->front);
}

static const char* addStage(cmd_parms* cmd, Stage stage, const char* text) try {
  return answer(cmd, addServerLine(cmd, stage, text));
} catch (const std::exception&) {
  return kOutOfMemory;
}

// httpd names the place in whose section a line stands, and none for the server's own.
static const char* addStage(cmd_parms* cmd, void* place, Stage stage,
                            const char* text) try {
  if (!cmd->path) return addStage(cmd, stage, text);
  if (const char* reason = misplaced(cmd)) return reason;
  Stages* own = madeStages(cmd->pool, ownLines(place, stage));
  return answer(cmd, addLine(cmd, own, stage, text));
} catch (const std::exception&) {
  return kOutOfMemory;
}

}  // namespace host

using host::ServerConfig;

// The main server's settings are the first ones of each reading.
void* nsapiCreateServer(apr_pool_t* pool, server_rec* server) {
  if (!server->is_virtual) {
    apr_pool_cleanup_register(pool, nullptr, host::forgetModules, apr_pool_cleanup_null);
  }
  return apr_pcalloc(pool, sizeof(ServerConfig));
}

const char* nsapiInit(cmd_parms* cmd, void*, const char* text) try {
  return host::answer(cmd, host::addInitLine(cmd, text));
} catch (const std::exception&) {
  return host::kOutOfMemory;
}

const char* nsapiTlsFront(cmd_parms* cmd, void*, const char* text) try {
  return host::answer(cmd, host::setFront(cmd, text));
} catch (const std::exception&) {
  return host::kOutOfMemory;
}

const char* nsapiNameTrans(cmd_parms* cmd, void*, const char* text) {
  return host::addStage(cmd, host::Stage::nameTrans, text);
}

const char* nsapiObjectType(cmd_parms* cmd, void* place, const char* text) {
  return host::addStage(cmd, place, host::Stage::objectType, text);
}

const char* nsapiService(cmd_parms* cmd, void* place, const char* text) {
  return host::addStage(cmd, place, host::Stage::service, text);
}
