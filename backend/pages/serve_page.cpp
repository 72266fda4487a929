#include "backend/pages/serve_page.h"

#include "backend/pages/page.h"
#include "backend/pages/reply.h"

namespace backend {

struct PageRow {
  std::string_view name;
  PageHandler show;
};

constexpr PageRow kPages[] = {
    {"index.jsp", showIndex}, {"snoop", showSnoop},         {"echo", showEcho},
    {"upload", showUpload},   {"bytes", showBytes},         {"status", showStatus},
    {"sleep", showSleep},     {"stream", showStream},       {"session", showSession},
    {"busy", showBusy},       {"attribute", showAttribute}, {"die", showDie},
    {"marked", showMarked},
};

// A folder's page is index.jsp.
static std::string_view pageNameOf(std::string_view uri) {
  uri = uri.substr(0, uri.find_first_of(";?"));
  const std::size_t slash = uri.rfind('/');
  const std::string_view name =
      slash == std::string_view::npos ? uri : uri.substr(slash + 1);
  return name.empty() ? "index.jsp" : name;
}

static void showMissing(const PageCall& call) {
  const std::string uri(call.request.uri);
  sendMessage(call, 404, "This server has no page '" + uri + "'.");
}

static PageHandler handlerOf(std::string_view name) {
  for (const PageRow& row : kPages) {
    if (row.name == name) return row.show;
  }
  return showMissing;
}

void servePage(Server& server, const Connection& connection,
               const ServiceRequest& request, Exchange& exchange) {
  const PageCall call{server,
                      connection,
                      request,
                      exchange,
                      parseQuery(variableOf(request, "QUERY_STRING")),
                      variableOf(request, "REQUEST_METHOD") == "HEAD"};
  try {
    handlerOf(pageNameOf(request.uri))(call);
  } catch (const BadRequest& error) {
    sendMessage(call, 400, error.what());
  }
}

}  // namespace backend
