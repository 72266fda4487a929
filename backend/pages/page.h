// A page: what it gets, and which pages there are. What a page does is told
// above its definition.
//
// Ownership: the references outlive the call.
// Threads: that of the connection. Each page runs one conversation to its end.
// Errors: BadRequest, as long as nothing of the reply has gone out; what
// Exchange throws ends the connection.
#pragma once

#include "backend/pages/query.h"
#include "backend/server.h"
#include "backend/wire/connection.h"
#include "backend/wire/exchange.h"
#include "backend/wire/request.h"

namespace backend {

// All that a page gets.
struct PageCall {
  Server& server;
  const Connection& connection;
  const ServiceRequest& request;
  Exchange& exchange;
  Query query;
  bool head;  // a HEAD request: the reply has no body
};

using PageHandler = void (*)(const PageCall& call);

void showIndex(const PageCall& call);
void showSnoop(const PageCall& call);
void showEcho(const PageCall& call);
void showUpload(const PageCall& call);
void showMarked(const PageCall& call);
void showBytes(const PageCall& call);
void showStatus(const PageCall& call);
void showSleep(const PageCall& call);
void showStream(const PageCall& call);
void showSession(const PageCall& call);
void showAttribute(const PageCall& call);
void showBusy(const PageCall& call);
void showDie(const PageCall& call);

}  // namespace backend
