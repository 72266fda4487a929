// What the server knows of itself, shared by all connections.
//
// Ownership: each connection's thread keeps the record alive.
// Threads: `options` doesn't change once connections are accepted; the others
// have locks of their own.
// Errors: the making of the record throws only what an allocation throws.
#pragma once

#include <utility>

#include "backend/cluster_file.h"
#include "backend/connection_table.h"
#include "backend/options.h"
#include "backend/session_store.h"

namespace backend {

struct Server {
  explicit Server(Options given)
      : options(std::move(given)), cluster(options.clusterFile) {}

  Options options;
  ClusterFile cluster;
  SessionStore sessions;
  ConnectionTable connections;
};

}  // namespace backend
