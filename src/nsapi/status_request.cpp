#include "nsapi/status_request.h"

#include "context/text.h"
#include "nsapi/host_objects.h"

const char* lineValue(const StatusRequest& status, const char* name) {
  return pblock_findval(name, const_cast<pblock*>(status.line));
}

bool lineSays(const StatusRequest& status, const char* name, const char* word) {
  return viewOf(lineValue(status, name)) == word;
}

// Without a path on the line the page's own is what stands before "/explain", if that
// stands at the end of the URI.
bool locatePage(StatusRequest* status) {
  constexpr std::string_view kExplain = "/explain";
  const std::string_view uri = viewOf(status->req->uri);
  const char* given = lineValue(*status, "path");
  if (given) {
    status->path = given;
    if (!uri.starts_with(status->path)) return false;
  } else {
    status->path =
        uri.ends_with(kExplain) ? beginOf(uri, uri.size() - kExplain.size()) : uri;
  }
  status->below = restOf(uri, status->path.size());
  while (status->path.ends_with('/')) status->path.remove_suffix(1);
  return status->below.empty() || status->below.front() == '/' || uri.ends_with('/');
}

bool isLocalClient(const vesk_request* req) {
  const std::string_view address = viewOf(pblock_findval("ip", sessionOf(req)->client));
  return address.starts_with("127.") || address == "::1" ||
         address.starts_with("::ffff:127.");
}
