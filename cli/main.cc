// The saffra command.
#include <string>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "saffra/version.h"

int main(int argc, char** argv) {
  CLI::App app{"saffra: visual regression testing"};
  app.set_version_flag("--version", std::string("saffra ") + saffra::libraryVersion(),
                       "Print the version and exit");
  app.require_subcommand(1);
  int exitCode = 0;
  saffra::cli::addServeCommand(app, exitCode);
  saffra::cli::addCheckCommand(app, exitCode);
  saffra::cli::addKeysCommand(app, exitCode);
  saffra::cli::addMigrateCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Help and the version print and succeed; every other parse error is a usage error (exit
    // code 2).
    const int printed = app.exit(e);
    return printed == static_cast<int>(CLI::ExitCodes::Success) ? 0 : 2;
  }
  return exitCode;
}
