#include "layer/builtins.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <new>

#include "layer/functions.h"
#include "layer/parameters.h"
#include "layer/request.h"
#include "layer/text.h"
#include "layer/uri.h"

namespace host {

static int loadModules(pblock* pb, Session*, Request*) {
  const std::string reason = loadModule(findValue(pb, "shlib"), findValue(pb, "funcs"));
  if (reason.empty()) return REQ_PROCEED;
  (void)addParameter(pb, "error", reason.c_str());  // without it: "failed"
  return REQ_ABORTED;
}

static bool isFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

static std::string withIndexFile(const std::string& folder, std::string_view names) {
  for (auto name = takeWord(&names, kBlanks); !name.empty();
       name = takeWord(&names, kBlanks)) {
    std::string path = folder + std::string(name);
    if (isFile(path)) return path;
  }
  return folder;
}

static std::string translated(const std::string& root, const std::string& uri,
                              const char* indexNames) {
  std::string path = root + uri;
  // An evil URI is left to whoever judges it: nothing outside is looked at.
  bool folder = !uri.empty() && uri.back() == '/' && !uriIsEvil(uri);
  return folder && indexNames ? withIndexFile(path, indexNames) : path;
}

static bool replaceParameter(pblock* pb, const char* name, const std::string& value) {
  freeParameter(findParameter(pb, name, true));
  return addParameter(pb, name, value.c_str()) != nullptr;
}

static int documentRoot(pblock* pb, Session*, Request* rq) try {
  const char* root = findValue(pb, "root");
  const char* uri = findValue(rq->reqpb, "uri");
  if (!root || !uri) return REQ_NOACTION;
  bool scratch = static_cast<HostRequest*>(rq)->translateOnly;
  std::string path = translated(root, uri, scratch ? nullptr : findValue(pb, "index"));
  bool set = replaceParameter(rq->vars, "ppath", path) &&
             replaceParameter(rq->vars, "path", path) &&
             replaceParameter(rq->vars, "ntrans-base", root);
  return set ? REQ_PROCEED : REQ_ABORTED;
} catch (const std::bad_alloc&) {
  return REQ_ABORTED;
}

static bool endsInOneOf(std::string_view name, std::string_view suffixes) {
  for (auto suffix = takeWord(&suffixes, kBlanks); !suffix.empty();
       suffix = takeWord(&suffixes, kBlanks)) {
    if (name.size() < suffix.size()) continue;
    if (equalsNoCase(name.substr(name.size() - suffix.size()), suffix)) return true;
  }
  return false;
}

// A plug-in may drop what stands behind a ';', and a file may have one in its name.
static bool hasSuffix(const Request* rq, const char* suffixes) {
  const char* path = pathOf(rq->vars);
  if (!path) path = findValue(rq->reqpb, "uri");
  if (!path) return false;
  std::string_view name(path);
  name.remove_prefix(name.rfind('/') + 1);
  return endsInOneOf(name, suffixes) ||
         endsInOneOf(name.substr(0, name.find(';')), suffixes);
}

static int forceType(pblock* pb, Session*, Request* rq) {
  const char* type = findValue(pb, "type");
  if (!type || findValue(rq->srvhdrs, "content-type")) return REQ_NOACTION;
  const char* suffixes = findValue(pb, "suffix");
  if (suffixes && !hasSuffix(rq, suffixes)) return REQ_NOACTION;
  return addParameter(rq->srvhdrs, "content-type", type) ? REQ_NOACTION : REQ_ABORTED;
}

// A line is judged before its function runs: what stands under `needs` is there.
constexpr Builtin kBuiltins[] = {
    {"load-modules", loadModules, true, "shlib", {"shlib", "funcs"}},
    {"document-root", documentRoot, false, "root", {"root", nullptr}},
    {"force-type", forceType, false, nullptr, {"type", nullptr}},
};

template <typename Fits>
static const Builtin* findBuiltin(Fits fits) {
  const auto* row = std::find_if(std::begin(kBuiltins), std::end(kBuiltins), fits);
  return row == std::end(kBuiltins) ? nullptr : row;
}

const Builtin* builtinOf(FuncPtr function) {
  return findBuiltin([function](const Builtin& row) { return row.function == function; });
}

FuncPtr findFunction(std::string_view name) {
  if (FuncPtr registered = registeredFunction(name)) return registered;
  const std::string key = functionKey(name);
  const Builtin* builtin =
      findBuiltin([&key](const Builtin& row) { return functionKey(row.name) == key; });
  return builtin ? builtin->function : nullptr;
}

FuncPtr functionOf(const Directive& directive) {
  const std::string* name = directive.find("fn");
  return name ? findFunction(*name) : nullptr;
}

static std::string lackOf(const Builtin& builtin, const Directive& directive) {
  std::string needed;
  bool lacks = false;
  for (const char* name : builtin.needs) {
    if (!name) break;
    needed.append(needed.empty() ? " needs " : " and ").append(name);
    lacks = lacks || !directive.find(name);
  }
  return lacks ? std::string(builtin.name) + needed : "";
}

std::string misuseOf(const Builtin& builtin, const Directive& directive, bool inInit) {
  if (builtin.runsWhenRead == inInit) return lackOf(builtin, directive);
  return "\"" + *directive.find("fn") + "\" " +
         (inInit ? "has no place in Init" : "belongs into Init");
}

std::string absoluteFolder(const std::string& path) {
  std::error_code error;
  if (path.empty() || !std::filesystem::is_directory(path, error)) return {};
  std::string folder = std::filesystem::absolute(path, error).lexically_normal().string();
  if (error) return {};
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

std::string completeBuiltin(Directive* directive, const std::string& indexNames) {
  const Builtin* builtin = builtinOf(functionOf(*directive));
  if (!builtin || builtin->function != documentRoot) return {};
  if (std::string reason = lackOf(*builtin, *directive); !reason.empty()) return reason;
  const std::string root = *directive->find("root");
  const std::string folder = absoluteFolder(root);
  if (folder.empty()) return "root \"" + root + "\" is not a folder";
  directive->set("root", folder);
  if (!directive->find("index")) directive->set("index", indexNames);
  return {};
}

char* pathOf(pblock* vars) {
  char* path = findValue(vars, "ppath");
  return path ? path : findValue(vars, "path");
}

}  // namespace host
