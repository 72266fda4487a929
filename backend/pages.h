// The pages, chosen by the last path segment of the URI.
//
// Threads: that of the connection. Each page runs one conversation to its end.
// Errors: BadRequest becomes a page with status 400 as long as nothing of the
// reply has gone out; what Exchange throws ends the connection.
#pragma once

#include <string_view>

#include "backend/connection.h"
#include "backend/exchange.h"
#include "backend/query.h"
#include "backend/request.h"
#include "backend/server.h"

namespace backend {

// All that a page gets. The references outlive the call.
struct PageCall {
  Server& server;
  const Connection& connection;
  const ServiceRequest& request;
  Exchange& exchange;
  Query query;
  bool head;  // a HEAD request: the reply has no body
};

using PageHandler = void (*)(const PageCall& call);

// The name of the page that a URI asks for; "index.jsp" for a folder.
[[nodiscard]] std::string_view pageNameOf(std::string_view uri);

void servePage(Server& server, const Connection& connection,
               const ServiceRequest& request, Exchange& exchange);

// The pages, one function each; what a page does is told above its definition.
void showIndex(const PageCall& call);
void showSnoop(const PageCall& call);
void showEcho(const PageCall& call);
void showUpload(const PageCall& call);
void showBytes(const PageCall& call);
void showStatus(const PageCall& call);
void showSleep(const PageCall& call);
void showStream(const PageCall& call);
void showSession(const PageCall& call);
void showAttribute(const PageCall& call);
void showBusy(const PageCall& call);
void showDie(const PageCall& call);

}  // namespace backend
