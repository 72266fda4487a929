#include "embedded/pages.h"

#include <algorithm>
#include <iterator>

#include "layer/parameters.h"
#include "layer/status.h"
#include "layer/text.h"

namespace host {

void setHeader(HostRequest* request, const char* name, std::string_view value) {
  freeParameter(findParameter(request->srvhdrs, name, true));
  (void)addParameter(request->srvhdrs, name, std::string(value).c_str());
}

bool startPage(HostRequest* request, int status, const char* reason) {
  request->status_num = static_cast<short>(status);
  request->reason = reason;
  return startResponse(request) == REQ_PROCEED;
}

// The size of a file is what a client needs whose range lies outside of it.
static bool isErrorHeader(std::string_view name, int status) {
  constexpr std::string_view kKept[] = {"location", "www-authenticate", "retry-after",
                                        "allow", "set-cookie"};
  if (status == kRangeNotSatisfiable && equalsNoCase(name, "content-range")) return true;
  return std::any_of(std::begin(kKept), std::end(kKept),
                     [name](auto kept) { return equalsNoCase(name, kept); });
}

// Drops the headers that told about the response that isn't sent: its length and
// type would be taken for those of the page.
static void keepErrorHeaders(pblock* headers, int status) {
  for (pb_entry* entry = headers->ht[0]; entry;) {
    const char* name = entry->param->name;
    entry = entry->next;
    if (!isErrorHeader(name, status)) freeParameter(findParameter(headers, name, true));
  }
}

void sendErrorPage(HostRequest* request, int status, const char* reason) {
  std::string title =
      std::to_string(status) + " " + htmlOf(reason ? reason : usualReason(status));
  std::string page = "<!DOCTYPE html>\n<html><head><title>" + title +
                     "</title></head>\n<body><h1>" + title + "</h1></body></html>\n";
  keepErrorHeaders(request->srvhdrs, status);
  setHeader(request, "content-type", "text/html; charset=utf-8");
  setHeader(request, "content-length", std::to_string(page.size()));
  if (!startPage(request, status, reason)) return;
  (void)request->exchange->writeBody(page.data(), static_cast<int>(page.size()));
}

}  // namespace host
