#include "layer/client_names.h"

#include <algorithm>
#include <iterator>

namespace host {

// What stands in the blocks under a name that is no header's, what plug-ins call the
// same thing as CGI programs do, and what they ask the web server for by such a name.
constexpr std::string_view kHostsWords[] = {
    "auth-cert",
    "auth-type",
    "auth-user",
    "clf-request",
    "dns",
    "gateway-interface",
    "https",
    "https-keysize",
    "https-secretsize",
    "ip",
    "keysize",
    "method",
    "path-info",
    "path-translated",
    "protocol",
    "query",
    "query-string",
    "remote-addr",
    "remote-host",
    "remote-user",
    "request-line",
    "request-method",
    "script-name",
    "secret-keysize",
    "server-name",
    "server-port",
    "server-port-secure",
    "server-protocol",
    "server-software",
    "uri",
};

static char plain(char c) {
  if (c == '_') return '-';
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isHostsWord(std::string_view header) {
  return std::any_of(
      std::begin(kHostsWords), std::end(kHostsWords), [header](std::string_view word) {
        return word.size() == header.size() &&
               std::equal(word.begin(), word.end(), header.begin(),
                          [](char own, char sent) { return own == plain(sent); });
      });
}

}  // namespace host
