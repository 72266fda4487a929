#include "httpd/notes.h"

#include <apr_tables.h>

#include <string_view>

namespace host {

struct Note {
  const char* name;
  std::string_view variable;  // of the plug-in, behind kPrefix
};

constexpr std::string_view kPrefix = "vesk-";
constexpr Note kNotes[] = {{"VESK_SERVER", "server"},
                           {"VESK_ATTEMPTS", "attempts"},
                           {"VESK_STATE", "state"},
                           {"VESK_TIME", "time"},
                           {"VESK_SESSION", "session"}};

// The blocks last as long as the notes: both go with the request's pool.
static void putNote(request_rec* r, const pb_param& param) {
  const std::string_view variable = param.name + kPrefix.size();
  for (const Note& note : kNotes) {
    if (variable == note.variable) apr_table_setn(r->notes, note.name, param.value);
  }
}

// One walk: a look for each of them would read most names of the block five times.
void putNotes(request_rec* r, const HostRequest& request) {
  for (const pb_entry* entry = request.vars->ht[0]; entry; entry = entry->next) {
    const pb_param& param = *entry->param;
    if (std::string_view(param.name).starts_with(kPrefix)) putNote(r, param);
  }
}

}  // namespace host
