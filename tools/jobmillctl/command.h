#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace jobmillctl {

/// Exit statuses, the same for all commands.
enum Status {
  kOk = 0,
  kNotGood = 1,  ///< an error was found, or what was asked for could not be done
  kUsage = 2,    ///< the command line is not as it has to be
};

/// What was asked for could not be done; the text says why. The program prints it and ends with
/// kNotGood.
class Failed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Prints a line for the administrator at once. What is not printable ASCII is shown as `\xNN`.
void Print(const std::string& line);

/// Asks a question, and waits for the answer: "y" and "yes" agree, the end of the input does not.
bool IsWanted(const std::string& question);

/// The action of the subcommand that the command line names: writes to standard output, returns the
/// exit status.
using Action = std::function<int()>;

/// Each command lies in a file of its own, which declares its subcommands and options with such a
/// function and sets `chosen` when one of them is named. program.cc lists them.
using Declare = void (*)(CLI::App& app, Action& chosen);

void DeclareCheck(CLI::App& app, Action& chosen);
void DeclareUsers(CLI::App& app, Action& chosen);
void DeclareStatus(CLI::App& app, Action& chosen);
void DeclareEnd(CLI::App& app, Action& chosen);
void DeclareRestart(CLI::App& app, Action& chosen);
void DeclareHistory(CLI::App& app, Action& chosen);
void DeclareCollect(CLI::App& app, Action& chosen);
void DeclareServe(CLI::App& app, Action& chosen);
void DeclareBundle(CLI::App& app, Action& chosen);

}  // namespace jobmillctl
