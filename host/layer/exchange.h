// What differs between web servers: one request and its response, as the web
// server that runs it carries it out.
//
// A web server derives from Exchange, fills in a HostRequest (request.h) and
// runs its stages (stages.h); whatever a stage function asks of the client
// arrives here. SYS_NETFD of the API is a pointer to an Exchange.
//
// Ownership: the web server's; it lives from before the first stage function
// until after the last.
// Threads: only the thread that runs the request. No lock.
// Errors: as each function tells; nothing may be thrown.
#pragma once

#include <cstdint>

#include "nsapi.h"

namespace host {

struct HostRequest;

class Exchange {
 public:
  virtual ~Exchange() = default;

  // Reads what one read of the request's body gives, at most `size` bytes: the
  // count; 0 at the end of the body; -1 when it breaks off. Blocks.
  virtual int readBody(unsigned char* buffer, int size) = 0;

  // Takes status, reason and `srvhdrs` for the response's head, which leaves
  // now or with the first body block. Called once. REQ_PROCEED; REQ_NOACTION
  // when no body may follow; REQ_ABORTED when the client can't be reached.
  virtual int startResponse(HostRequest* request) = 0;

  // Sends body bytes, after startResponse gave REQ_PROCEED: `size`, or -1 with
  // errno. Blocks.
  virtual int writeBody(const char* bytes, int size) = 0;

  // What is missing of the started response's content-length, in bytes; below 0 when it
  // has none.
  [[nodiscard]] virtual std::int64_t missing() const = 0;

  // The client's IPv4 address and port: false when it has none.
  virtual bool peer(sockaddr_in* address) = 0;

  // The client's host name, or null. Lasts as long as the request. May block.
  virtual char* clientName() = 0;

  // The file path of a URI (memory of the running request), or null.
  virtual char* translateUri(const char* uri, Session* session) = 0;

  // Settings of the server that took this request.
  virtual conf_global_vars_s* settings() = 0;

  // Writes one line to the error log. `request` may be null.
  virtual void log(int degree, const char* function, HostRequest* request,
                   const char* message) = 0;
};

}  // namespace host
