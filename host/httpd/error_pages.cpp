#include "httpd/error_pages.h"

#include <apr_strings.h>
#include <http_protocol.h>
#include <mod_core.h>

#include <algorithm>

#include "httpd/mod_nsapi.h"
#include "httpd/place.h"
#include "layer/judge.h"
#include "layer/outcome.h"
#include "layer/text.h"

namespace host {

static bool overrides(const ErrorOverride* errors, int status) {
  if (!errors || !errors->on) return false;
  if (!errors->statuses) return true;
  const void* elements = errors->statuses->elts;
  const auto* statuses = static_cast<const int*>(elements);
  return std::find(statuses, statuses + errors->statuses->nelts, status) !=
         statuses + errors->statuses->nelts;
}

bool httpdAnswers(request_rec* r, const HostRequest& request) {
  const int status = request.status_num;
  if (!ap_is_HTTP_ERROR(status)) return false;
  if (overrides(errorOverrideOf(r), status)) return true;
  if (!isNoServersAnswer(outcomeOf(request))) return false;
  return ap_response_code_string(r, ap_index_of_response(status)) != nullptr;
}

static const char* addStatus(cmd_parms* cmd, ErrorOverride* errors, const char* text) {
  const auto status = numberOf(text);
  if (status < 0 || !ap_is_HTTP_ERROR(status)) {
    return apr_pstrcat(cmd->pool, cmd->cmd->name, ": \"", text,
                       "\" is not the status of an error", nullptr);
  }
  if (!errors->statuses) errors->statuses = apr_array_make(cmd->pool, 4, sizeof(int));
  void* place = apr_array_push(errors->statuses);
  *static_cast<int*>(place) = static_cast<int>(status);
  return nullptr;
}

}  // namespace host

const char* nsapiErrorOverride(cmd_parms* cmd, void* place, int count,
                               char* const words[]) {
  if (const char* reason = host::misplaced(cmd)) return reason;
  const bool on = count > 0 && strcasecmp(words[0], "on") == 0;
  const bool off = count == 1 && strcasecmp(words[0], "off") == 0;
  if (!on && !off) return "NSAPIErrorOverride must be Off, or On and statuses of errors";
  void* memory = apr_pcalloc(cmd->pool, sizeof(host::ErrorOverride));
  auto* errors = static_cast<host::ErrorOverride*>(memory);
  errors->on = on;
  *host::ownErrorOverride(place) = errors;
  for (int i = 1; i < count; ++i) {
    if (const char* reason = host::addStatus(cmd, errors, words[i])) return reason;
  }
  return nullptr;
}
