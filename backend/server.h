// The server: what it knows of itself, and its life from start to signal.
#pragma once

#include <string>

#include "backend/cluster_file.h"
#include "backend/connection_table.h"
#include "backend/options.h"
#include "backend/session_store.h"
#include "backend/stop_gate.h"

namespace backend {

// Shared by all connections, each of which keeps it alive. `options` doesn't
// change once connections are accepted; the others have locks of their own.
struct Server {
  explicit Server(Options given);

  Options options;
  ClusterFile cluster;
  SessionStore sessions;
  StopGate gate;
  ConnectionTable connections;
};

// Listens, prints the address and serves until SIGTERM or SIGINT. Returns the
// program's exit status. Throws std::system_error when it can't listen.
[[nodiscard]] int runServer(Options options);

}  // namespace backend
