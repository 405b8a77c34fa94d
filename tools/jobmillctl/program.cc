#include "tools/jobmillctl/program.h"

#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "inspect/file.h"
#include "tools/completion/completion.h"
#include "tools/jobmillctl/command.h"

namespace jobmillctl {
namespace {

constexpr Declare kCommands[] = {DeclareCheck, DeclareUsers,   DeclareStatus,
                                 DeclareEnd,   DeclareRestart, DeclareHistory};

}  // namespace

void Print(const std::string& line) {
  fmt::print("{}\n", inspect::Printable(line));
  std::fflush(stdout);
}

int RunProgram(int argc, const char* const* argv) {
  try {
    CLI::App app("Looks at the jobmills of this machine, their configuration and their runs");
    app.set_version_flag("--version", "jobmillctl " JOBMILL_VERSION);
    app.require_subcommand(1);
    Action chosen;
    for (const Declare declare : kCommands) declare(app, chosen);
    if (const auto words = completion::Asked(argc, argv)) {
      completion::Print(completion::Complete(app, *words));
      return kOk;
    }
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kOk : kUsage;
    }
    return chosen();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "jobmillctl: %s\n", error.what());
    return kNotGood;
  }
}

}  // namespace jobmillctl
