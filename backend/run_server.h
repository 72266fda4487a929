// The life of the server: it listens, accepts connections, gives each a thread,
// and winds down after a signal.
//
// Ownership: the listening socket is closed before the function returns;
// threads that still run then keep what they use.
// Threads: main's alone. The signals SIGTERM and SIGINT are taken here.
// Errors: std::system_error when the address can't be had; later ones are log
// lines.
#pragma once

#include "backend/options.h"

namespace backend {

// Listens, prints the address and serves until SIGTERM or SIGINT. Returns the
// program's exit status.
[[nodiscard]] int runServer(Options options);

}  // namespace backend
