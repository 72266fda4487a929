#include "layer/request_setup.h"

#include "layer/parameters.h"

namespace host {

// A record of the API: a plug-in may look at any field, so none is left out.
bool openRequest(HostRequest* request, Exchange* exchange) {
  request->vars = newParameters();
  request->reqpb = newParameters();
  request->loadhdrs = 0;
  request->headers = newParameters();
  request->senthdrs = 0;
  request->srvhdrs = newParameters();
  request->status_num = 0;
  request->input = netbuf{exchange, 0, 0, 0, 0, nullptr, nullptr};
  request->session = Session{newParameters(), exchange, &request->input, 1, in_addr{}};
  request->exchange = exchange;
  request->reason = nullptr;
  request->responseStarted = false;
  request->hasBody = false;
  request->overfull = false;
  request->translateOnly = false;
  return request->vars && request->reqpb && request->headers && request->srvhdrs &&
         request->session.client;
}

}  // namespace host
