// Completion of a program's command line in a shell. The shells' functions (deploy/completion) ask
// the program itself, "PROGRAM --complete WORD...", which answers from what it has declared to
// CLI11: there is no second list of options.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace completion {

using Words = std::vector<std::string>;

struct Candidate {
  std::string word;
  std::string help;  ///< one line, or nothing
};

struct Answer {
  std::vector<Candidate> candidates;
  std::string names;  ///< "files" or "directories" when the name of one may stand there, too
};

/// The words after the program's name, of which the last is to be completed, when a shell asks for
/// that. There is at least one, which may be empty.
std::optional<Words> Asked(int argc, const char* const* argv);

/// What may stand in place of the last of `words`. The values of an option or a positional are
/// those that its type names: {ONE,OTHER}, FILE, DIR. An app of prefix_command() leaves the words
/// after its options to `commands`, which no other app needs.
Answer Complete(const CLI::App& app, const Words& words,
                const std::function<Answer(const Words&)>& commands = {});

/// Writes a line for each candidate, its help after a tab, and ":files" or ":directories".
void Print(const Answer& answer);

}  // namespace completion
