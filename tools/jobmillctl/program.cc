#include "tools/jobmillctl/program.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "inspect/file.h"
#include "tools/completion/completion.h"
#include "tools/jobmillctl/command.h"

namespace jobmillctl {
namespace {

constexpr Declare kCommands[] = {DeclareCheck,   DeclareUsers,   DeclareStatus,
                                 DeclareEnd,     DeclareRestart, DeclareHistory,
                                 DeclareCollect, DeclareServe,   DeclareBundle};

// How many letters have to be changed, added, left out or exchanged with their neighbour.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> least(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        least[i][j] = i + j;
        continue;
      }
      least[i][j] = std::min({least[i - 1][j] + 1, least[i][j - 1] + 1,
                              least[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        least[i][j] = std::min(least[i][j], least[i - 2][j - 2] + 1);
      }
    }
  }
  return least[a.size()][b.size()];
}

// What is wrong with the word in the place of a command; nothing when it is one, or there is none.
std::optional<std::string> WrongCommand(const CLI::App& app, int argc, const char* const* argv) {
  const std::string word = argc > 1 ? argv[1] : "";
  if (word.empty() || word.starts_with('-')) return std::nullopt;
  std::string nearest;
  std::size_t least = 3;  // more letters than that are another word
  for (const CLI::App* command : app.get_subcommands(nullptr)) {
    const std::size_t distance = Distance(word, command->get_name());
    if (distance == 0) return std::nullopt;
    if (distance < std::min(least, word.size())) {
      least = distance;
      nearest = command->get_name();
    }
  }
  std::string text = fmt::format("'{}' is no command", inspect::Printable(word));
  if (!nearest.empty()) text += fmt::format("; is '{}' meant?", nearest);
  return text;
}

}  // namespace

void Print(const std::string& line) {
  fmt::print("{}\n", inspect::Printable(line));
  std::fflush(stdout);
}

bool IsWanted(const std::string& question) {
  fmt::print("{} [y/N] ", question);
  std::fflush(stdout);
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

int RunProgram(int argc, const char* const* argv) {
  // Whoever started this program may have it ignored, and then no command's status could be read.
  signal(SIGCHLD, SIG_DFL);
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
    if (const auto wrong = WrongCommand(app, argc, argv)) {
      fmt::print(stderr, "{}\nRun with --help for more information.\n", *wrong);
      return kUsage;
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
