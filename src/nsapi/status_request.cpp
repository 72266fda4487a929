#include "nsapi/status_request.h"

#include "context/text.h"
#include "nsapi/host_objects.h"

const char* lineValue(const StatusRequest& status, const char* name) {
  return pblock_findval(name, const_cast<pblock*>(status.line));
}

bool lineSays(const StatusRequest& status, const char* name, const char* word) {
  return viewOf(lineValue(status, name)) == word;
}

constexpr std::string_view kExplain = "/explain";

static std::string_view withoutEnd(std::string_view text, std::string_view end) {
  return text.ends_with(end) ? beginOf(text, text.size() - end.size()) : text;
}

// Without a path on the line the page's own is what stands before "/explain", if that
// stands at the end of the URI. One that is empty, or a word, is a mistake, and must not
// take the whole site.
bool locatePage(StatusRequest* status) {
  const std::string_view uri = viewOf(status->req->uri);
  const char* given = lineValue(*status, "path");
  if (given && *given != '/') return false;
  const std::string_view path = given ? viewOf(given) : withoutEnd(uri, kExplain);
  status->path = withoutEnd(path, "/");
  if (!uri.starts_with(status->path)) return false;
  const std::string_view below = restOf(uri, status->path.size());
  status->explains = below == kExplain;
  return status->explains || below.empty() || below == "/";
}

bool isLocalClient(const vesk_request* req) {
  const std::string_view address = viewOf(pblock_findval("ip", sessionOf(req)->client));
  return address.starts_with("127.") || address == "::1" ||
         address.starts_with("::ffff:127.");
}
