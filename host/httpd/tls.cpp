#include "httpd/tls.h"

#include <http_ssl.h>

#include <exception>
#include <string>

#include "httpd/attributes.h"
#include "httpd/certificate.h"
#include "httpd/config.h"
#include "httpd/front.h"
#include "layer/parameters.h"
#include "layer/text.h"

namespace host {

// The front's word counts as a whole: what is behind its own connection, even a
// certificate, is the front's and not the browser's.
static const Front* tellingFront(const request_rec* r) {
  const Front* front = configOf(r->server)->front;
  return cameThrough(front, r) && toldBy(front, r, "https") ? front : nullptr;
}

// The two forms in which the headers for it are written.
static bool saysTls(const char* word) {
  return equalsNoCase(word, "https") || equalsNoCase(word, "on");
}

bool isSecure(request_rec* r) {
  const Front* front = tellingFront(r);
  return front ? saysTls(toldBy(front, r, "https"))
               : ap_ssl_conn_is_ssl(r->connection) != 0;
}

// One thing that is known of the connection, and where it is found.
struct Fact {
  const char* parameter;  // of a front's line
  const char* variable;   // of httpd
};

constexpr Fact kKeySize = {"keysize", "SSL_CIPHER_USEKEYSIZE"};
constexpr Fact kCertificate = {"certificate", "SSL_CLIENT_CERT"};

// What goes on as an attribute, under the name that servers know.
struct NamedFact {
  Fact fact;
  const char* name;
};

constexpr NamedFact kNamed[] = {
    {{"cipher", "SSL_CIPHER"}, "javax.servlet.request.cipher_suite"},
    {{"session", "SSL_SESSION_ID"}, "javax.servlet.request.ssl_session_id"},
    {{"verdict", "SSL_CLIENT_VERIFY"}, "SSL_CLIENT_VERIFY"},
};

// Null for what is unknown.
static const char* find(request_rec* r, const Front* front, const Fact& fact) {
  const char* text =
      front ? toldBy(front, r, fact.parameter)
            : ap_ssl_var_lookup(r->pool, r->server, r->connection, r, fact.variable);
  return text && *text ? text : nullptr;
}

static bool add(pblock* block, const char* name, const char* value) {
  return !value || addParameter(block, name, value) != nullptr;
}

static bool putFacts(HostRequest* request, request_rec* r) {
  const Front* front = tellingFront(r);
  const char* sent = find(r, front, kCertificate);
  const std::string certificate = sent ? certificateText(sent) : "";
  bool fits = add(request->session.client, "keysize", find(r, front, kKeySize)) &&
              add(request->vars, "auth-cert",
                  certificate.empty() ? nullptr : certificate.c_str());
  for (const NamedFact& named : kNamed) {
    fits = fits && putAttribute(request, r, named.name, find(r, front, named.fact));
  }
  return fits;
}

bool putTls(HostRequest* request, request_rec* r) try {
  return !isSecure(r) || putFacts(request, r);
} catch (const std::exception&) {
  return false;
}

}  // namespace host
