#include "embedded/access_log.h"

#include <cstdio>

#include "layer/parameters.h"

namespace host {

// What a client sent must not end its field or its line.
static void putClean(std::string* line, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte < 0x7f && c != '"' && c != '\\') {
      line->push_back(c);
      continue;
    }
    char shown[8];
    (void)std::snprintf(shown, sizeof(shown), "\\x%02x", byte);
    line->append(shown);
  }
}

static void putField(std::string* line, const char* value) {
  line->push_back(' ');
  putClean(line, value && *value ? value : "-");
}

static void putQuoted(std::string* line, const char* value) {
  line->append(" \"");
  putClean(line, value ? value : "-");
  line->push_back('"');
}

static std::string timeText(time_t when) {
  tm local{};
  (void)localtime_r(&when, &local);
  char text[40];
  return {text, strftime(text, sizeof(text), " [%d/%b/%Y:%H:%M:%S %z]", &local)};
}

std::string accessLine(const AccessEntry& entry) {
  HostRequest* request = entry.request;
  std::string line(entry.client);
  line += " -";
  putField(&line, findValue(request->vars, "auth-user"));
  line += timeText(entry.begin);
  putQuoted(&line, findValue(request->reqpb, "clf-request"));
  line += " " + std::to_string(request->status_num) + " " + std::to_string(entry.bytes);
  for (const char* name : {"referer", "user-agent"}) {
    putQuoted(&line, findValue(request->headers, name));
  }
  for (const char* name :
       {"vesk-server", "vesk-attempts", "vesk-state", "vesk-time", "vesk-session"}) {
    putField(&line, findValue(request->vars, name));
  }
  line.push_back('\n');
  return line;
}

}  // namespace host
