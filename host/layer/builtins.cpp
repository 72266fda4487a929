#include "layer/builtins.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <filesystem>
#include <string_view>
#include <vector>

#include "layer/parameters.h"
#include "layer/request.h"
#include "layer/stages.h"
#include "layer/uri.h"

namespace host {

// Takes the next word of a list, which any of the separators ends.
static std::string_view takeWord(std::string_view* list, const char* separators) {
  std::size_t start = list->find_first_not_of(separators);
  list->remove_prefix(start == std::string_view::npos ? list->size() : start);
  std::string_view word = list->substr(0, list->find_first_of(separators));
  list->remove_prefix(word.size());
  return word;
}

static int initFailed(pblock* pb, const std::string& reason) {
  (void)addParameter(pb, "error", reason.c_str());  // without it: "failed"
  return REQ_ABORTED;
}

// dlsym looks for the exact name first: a name in the file may be spelled with
// dashes only where the function has underscores.
static std::string registerSymbol(void* module, std::string_view name) {
  std::string symbol(name);
  for (char& c : symbol) c = c == '-' ? '_' : c;
  void* address = dlsym(module, symbol.c_str());
  if (!address) return "there is no function \"" + symbol + "\" in the module";
  registerFunction(name, reinterpret_cast<FuncPtr>(address));
  return {};
}

static std::vector<void*>& loadedModules() {
  static std::vector<void*> modules;
  return modules;
}

void unloadModules() {
  for (void* module : loadedModules()) (void)dlclose(module);
  loadedModules().clear();
}

int loadModules(pblock* pb, Session*, Request*) {
  const char* file = findValue(pb, "shlib");
  const char* names = findValue(pb, "funcs");
  if (!file || !names) return initFailed(pb, "load-modules needs shlib and funcs");
  // Without a slash, the loader would look in the system's folders only.
  std::string path = file;
  if (path.find('/') == std::string::npos) path.insert(0, "./");
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) return initFailed(pb, std::string("can't load module: ") + dlerror());
  loadedModules().push_back(module);
  std::string_view list = names;
  for (auto name = takeWord(&list, ", \t"); !name.empty();
       name = takeWord(&list, ", \t")) {
    std::string reason = registerSymbol(module, name);
    if (!reason.empty()) return initFailed(pb, reason.append(" ").append(path));
  }
  return REQ_PROCEED;
}

static bool isFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

static std::string withIndexFile(const std::string& folder, std::string_view names) {
  for (auto name = takeWord(&names, " \t"); !name.empty();
       name = takeWord(&names, " \t")) {
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

int documentRoot(pblock* pb, Session*, Request* rq) try {
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

int forceType(pblock* pb, Session*, Request* rq) {
  const char* type = findValue(pb, "type");
  if (!type || findValue(rq->srvhdrs, "content-type")) return REQ_NOACTION;
  return addParameter(rq->srvhdrs, "content-type", type) ? REQ_NOACTION : REQ_ABORTED;
}

std::string absoluteFolder(const std::string& path) {
  std::error_code error;
  if (path.empty() || !std::filesystem::is_directory(path, error)) return {};
  std::string folder = std::filesystem::absolute(path, error).lexically_normal().string();
  if (error) return {};
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

std::string completeDocumentRoot(Directive* directive, const std::string& indexNames) {
  const std::string* root = directive->find("root");
  if (!root) return "document-root needs root";
  std::string folder = absoluteFolder(*root);
  if (folder.empty()) return "root \"" + *root + "\" is not a folder";
  directive->set("root", folder);
  if (!directive->find("index")) directive->set("index", indexNames);
  return {};
}

}  // namespace host
