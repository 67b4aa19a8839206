// The saffra command.
#include <CLI/CLI.hpp>

#include "cli/commands.h"

int main(int argc, char** argv) {
  CLI::App app{"saffra: visual regression testing"};
  app.require_subcommand(1);
  int exitCode = 0;
  saffra::cli::addServeCommand(app, exitCode);
  CLI11_PARSE(app, argc, argv);
  return exitCode;
}
