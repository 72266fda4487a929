// vesk-backend: the reference server.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "backend/options.h"
#include "backend/run_server.h"

int main(int argc, char** argv) {
  try {
    backend::Options options{};
    const backend::ParseResult parsed = backend::parseOptions(argc, argv, options);
    if (!parsed.run) return parsed.exitStatus;
    return backend::runServer(std::move(options));
  } catch (const std::exception& error) {
    (void)fprintf(stderr, "vesk-backend: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
