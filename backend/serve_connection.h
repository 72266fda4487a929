// The life of one connection: pings, property sets and requests, until the peer
// closes, breaks the protocol or the server goes down.
//
// Ownership: the socket is the connection table's, which closes it.
// Threads: each connection has one of its own.
// Errors: nothing escapes; what goes wrong is a log line and the end of the
// connection, never of the server.
#pragma once

#include <string>

namespace backend {

struct Server;

// Serves the socket, which `connections` of the server knows, to its end and
// removes it there. Blocks as long as the peer keeps the connection.
void serveConnection(Server& server, int fd, const std::string& peer);

}  // namespace backend
