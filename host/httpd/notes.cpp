#include "httpd/notes.h"

#include <apr_tables.h>

#include "layer/parameters.h"

namespace host {

struct Note {
  const char* name;
  const char* variable;  // of the plug-in
};

constexpr Note kNotes[] = {{"VESK_SERVER", "vesk-server"},
                           {"VESK_ATTEMPTS", "vesk-attempts"},
                           {"VESK_STATE", "vesk-state"},
                           {"VESK_TIME", "vesk-time"},
                           {"VESK_SESSION", "vesk-session"}};

// The blocks last as long as the notes: both go with the request's pool.
void putNotes(request_rec* r, const HostRequest& request) {
  for (const Note& note : kNotes) {
    const char* value = findValue(request.vars, note.variable);
    if (value) apr_table_setn(r->notes, note.name, value);
  }
}

}  // namespace host
