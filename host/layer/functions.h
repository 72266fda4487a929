// Functions by name: those of plug-ins, and the modules that they come from.
//
// Ownership: modules stay loaded until unloadModules.
// Threads: set up by one thread; from then on read only, any number of threads.
// Errors: a text for the person who wrote the line; empty for success.
#pragma once

#include <string>
#include <string_view>

#include "nsapi.h"

namespace host {

// A function's name as it is looked up: with underscores, also for dashes.
[[nodiscard]] std::string functionKey(std::string_view name);

// Adds a function under a name, or replaces it.
void registerFunction(std::string_view name, FuncPtr function);

// The function that was registered under a name, or null.
[[nodiscard]] FuncPtr registeredFunction(std::string_view name);

// Forgets every function. REQUIRES: nobody can call one any more.
void forgetFunctions();

// Loads a shared object and registers its functions, whose names stand in a list
// with commas or blanks between. A module stays loaded whatever comes of it.
[[nodiscard]] std::string loadModule(std::string file, std::string_view names);

// Unloads what loadModule has loaded. REQUIRES: nobody can call a function of a
// module any more, and forgetFunctions was called.
void unloadModules();

}  // namespace host
