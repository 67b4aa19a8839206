// The saffra command.
#include <CLI/CLI.hpp>

#include "cli/commands.h"

int main(int argc, char** argv) {
  CLI::App app{"saffra: visual regression testing"};
  app.require_subcommand(1);
  int exitCode = 0;
  saffra::cli::addServeCommand(app, exitCode);
  saffra::cli::addCheckCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Help prints and succeeds; every other parse error is a usage error (exit code 2).
    const int printed = app.exit(e);
    return printed == static_cast<int>(CLI::ExitCodes::Success) ? 0 : 2;
  }
  return exitCode;
}
