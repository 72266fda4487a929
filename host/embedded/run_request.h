// The life of one request: its head, the stages, and the answer that they end in.
//
// Ownership: the records live on the thread's stack until the response has ended.
// Threads: any number of worker threads at once, one request each.
// Errors: nothing escapes; without memory the connection ends.
#pragma once

#include "embedded/http_exchange.h"

namespace host {

// A head that has been taken out of a client's input.
struct ReadHead {
  int status = 0;  // or that of the answer which the server gives by itself
  RequestHead head{};
};

// Takes the client's next head out of its input. REQUIRES: its scan has settled it.
void takeHead(ServerState* server, Client* client, ReadHead* read);

// Serves the request of a head. Blocks until the response has ended.
[[nodiscard]] Fate runRequest(ServerState* server, Client* client, const ReadHead& read);

}  // namespace host
