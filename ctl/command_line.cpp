#include "ctl/command_line.h"

#include "ctl/command.h"
#include "ctl/display.h"
#include "ctl/json_output.h"

namespace ctl {

// Options of the program are taken behind the command as well: nobody should have to
// think about the order.
static void describeProgram(CLI::App& app, Invocation& invocation) {
  app.set_version_flag("--version", "vesk-ctl " VESK_VERSION);
  app.add_flag("--json", invocation.json, "Print JSON");
  app.add_flag("-v,--verbose", invocation.verbose,
               "Show on standard error what the connector would log and trace");
  app.require_subcommand(1);
  app.fallthrough();
}

static void addCommands(CLI::App& app, Invocation& invocation) {
  addPing(app, invocation);
  addProps(app, invocation);
  addGet(app, invocation);
  addExplain(app, invocation);
  addCheck(app, invocation);
  addWatch(app, invocation);
}

int runCommandLine(int argc, const char* const* argv) {
  CLI::App app("Asks Vesk servers and looks at settings, without a web server",
               "vesk-ctl");
  Invocation invocation;
  describeProgram(app, invocation);
  addCommands(app, invocation);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitFine : kExitUsage;
  } catch (const std::exception& error) {
    complain(error.what());
    if (invocation.json) printJson({{"failure", error.what()}});
    return kExitFailure;
  }
  return invocation.exitStatus;
}

}  // namespace ctl
