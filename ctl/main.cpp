// vesk-ctl: asks Vesk servers, and the settings of web servers, what an operator wants to
// know, without a web server.

#include <cstdio>
#include <exception>

#include "ctl/command.h"
#include "ctl/command_line.h"

int main(int argc, char** argv) {
  try {
    return ctl::runCommandLine(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "vesk-ctl: %s\n", error.what());
    return ctl::kExitFailure;
  }
}
