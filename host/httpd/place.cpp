#include "httpd/place.h"

#include <http_config.h>

#include <algorithm>
#include <iterator>

#include "httpd/config.h"
#include "httpd/mod_nsapi.h"

namespace host {

// A switch that a place may leave as it is around it.
enum class Switch { open, off, on };

struct PlaceConfig {
  Switch engine;
  Switch files;
  Stages* lines[kStages];  // by stage; null: as around the place
  const ErrorOverride* errors;
};

static bool withoutFiles = false;  // written while the configuration is read

static const PlaceConfig* placeOf(const request_rec* r) {
  return static_cast<const PlaceConfig*>(
      ap_get_module_config(r->per_dir_config, &nsapi_module));
}

Stages** ownLines(void* place, Stage stage) {
  return &static_cast<PlaceConfig*>(place)->lines[static_cast<int>(stage)];
}

const ErrorOverride** ownErrorOverride(void* place) {
  return &static_cast<PlaceConfig*>(place)->errors;
}

const ErrorOverride* errorOverrideOf(const request_rec* r) {
  return placeOf(r)->errors;
}

bool pluginsRun(const request_rec* r) {
  const PlaceConfig* place = placeOf(r);
  if (place->engine == Switch::off) return false;
  if (configOf(r->server)->stages) return true;
  return std::any_of(std::begin(place->lines), std::end(place->lines),
                     [](const Stages* own) { return own; });
}

const Stages* linesOf(const request_rec* r, Stage stage) {
  const Stages* own = placeOf(r)->lines[static_cast<int>(stage)];
  return own ? own : configOf(r->server)->stages;
}

bool namesFiles(const request_rec* r) {
  return placeOf(r)->files != Switch::off;
}

bool anyPlaceWithoutFiles() {
  return withoutFiles;
}

static Switch inner(Switch outer, Switch own) {
  return own == Switch::open ? outer : own;
}

template <typename Record>
static Record* inner(Record* outer, Record* own) {
  return own ? own : outer;
}

// A place that is found by its folder is found by the very look at files that one of the
// switches spares, and too late for what else stands here.
const char* misplaced(cmd_parms* cmd) {
  return ap_check_cmd_context(cmd, NOT_IN_DIRECTORY | NOT_IN_FILES | NOT_IN_HTACCESS);
}

}  // namespace host

using host::PlaceConfig;
using host::Switch;

void* nsapiCreatePlace(apr_pool_t* pool, char*) {
  return apr_pcalloc(pool, sizeof(PlaceConfig));
}

void* nsapiMergePlaces(apr_pool_t* pool, void* outer, void* own) {
  const auto* around = static_cast<const PlaceConfig*>(outer);
  const auto* place = static_cast<const PlaceConfig*>(own);
  auto* merged = static_cast<PlaceConfig*>(nsapiCreatePlace(pool, nullptr));
  merged->engine = host::inner(around->engine, place->engine);
  merged->files = host::inner(around->files, place->files);
  for (int i = 0; i < host::kStages; ++i) {
    merged->lines[i] = host::inner(around->lines[i], place->lines[i]);
  }
  merged->errors = host::inner(around->errors, place->errors);
  return merged;
}

const char* nsapiEngine(cmd_parms* cmd, void* place, int on) {
  static_cast<PlaceConfig*>(place)->engine = on ? Switch::on : Switch::off;
  return host::misplaced(cmd);
}

const char* nsapiFiles(cmd_parms* cmd, void* place, int on) {
  static_cast<PlaceConfig*>(place)->files = on ? Switch::on : Switch::off;
  if (!on) host::withoutFiles = true;
  return host::misplaced(cmd);
}
