#include "layer/functions.h"

#include <dlfcn.h>

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

#include "layer/text.h"

namespace host {

using FunctionMap = std::map<std::string, FuncPtr, std::less<>>;

static FunctionMap& functions() {
  static FunctionMap map;
  return map;
}

static std::vector<void*>& loadedModules() {
  static std::vector<void*> modules;
  return modules;
}

std::string functionKey(std::string_view name) {
  std::string key(name);
  std::replace(key.begin(), key.end(), '-', '_');
  return key;
}

void registerFunction(std::string_view name, FuncPtr function) {
  functions()[functionKey(name)] = function;
}

FuncPtr registeredFunction(std::string_view name) {
  auto found = functions().find(functionKey(name));
  return found == functions().end() ? nullptr : found->second;
}

void forgetFunctions() {
  functions().clear();
}

// A symbol of C has no dash in its name, however the line spells it.
static std::string registerSymbol(void* module, std::string_view name) {
  const std::string symbol = functionKey(name);
  void* address = dlsym(module, symbol.c_str());
  if (!address) return "there is no function \"" + symbol + "\" in the module";
  registerFunction(name, reinterpret_cast<FuncPtr>(address));
  return {};
}

std::string loadModule(std::string file, std::string_view names) {
  // Without a slash, the loader would look in the system's folders only.
  if (file.find('/') == std::string::npos) file.insert(0, "./");
  void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) return std::string("can't load module: ") + dlerror();
  loadedModules().push_back(module);
  for (auto name = takeWord(&names, ", \t"); !name.empty();
       name = takeWord(&names, ", \t")) {
    std::string reason = registerSymbol(module, name);
    if (!reason.empty()) return reason.append(" ").append(file);
  }
  return {};
}

void unloadModules() {
  for (void* module : loadedModules()) (void)dlclose(module);
  loadedModules().clear();
}

}  // namespace host
