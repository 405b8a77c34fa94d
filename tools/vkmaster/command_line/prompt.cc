#include "tools/vkmaster/command_line/prompt.h"

#include <editline/readline.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <utility>

#include "master/errors.h"
#include "tools/vkmaster/command_line/interrupt.h"

namespace vkmaster {
namespace {

constexpr int kHistoryLines = 1000;

// Global, because the editor's callbacks get no argument of ours.
RunNames g_names;

int g_wake = -1;

// What a completion was ended by: nothing may be thrown through the editor.
std::exception_ptr g_interrupted;

// Waits for the terminal and for signals at once. A read() alone would miss a signal that comes
// just before it, and Ctrl-C would do nothing until the next key.
int GetCharacter(FILE* in) {
  std::array<pollfd, 2> wait{{{fileno(in), POLLIN, 0}, {g_wake, POLLIN, 0}}};
  while (poll(wait.data(), wait.size(), -1) < 0) {
    if (errno != EINTR) return EOF;
  }
  unsigned char c = 0;
  if (wait[1].revents != 0 || read(fileno(in), &c, 1) != 1) return EOF;
  return c;
}

char** Complete(const char* begin, int start, int /*end*/) {
  rl_attempted_completion_over = 1;  // never file names
  std::vector<std::string> found;
  try {
    found =
        Completions(std::string(rl_line_buffer, static_cast<std::size_t>(start)), begin, g_names);
  } catch (const master::Interrupted&) {
    g_interrupted = std::current_exception();
    return nullptr;
  } catch (const std::exception&) {
    return nullptr;  // the command itself will say what is wrong with the link
  }
  if (found.empty()) return nullptr;
  static std::vector<std::string> left;
  left.assign(found.rbegin(), found.rend());
  return rl_completion_matches(begin, [](const char* /*text*/, int /*state*/) -> char* {
    if (left.empty()) return nullptr;
    char* copy = strdup(left.back().c_str());
    left.pop_back();
    return copy;
  });
}

std::string HistoryFile() {
  const char* home = getenv("HOME");
  if (home == nullptr || *home == '\0') return "";
  return (std::filesystem::path(home) / ".vkmaster_history").string();
}

}  // namespace

Prompt::Prompt(std::function<std::string()> text, RunNames names, Interrupt& interrupt)
    : text_(std::move(text)), interrupt_(interrupt), history_(HistoryFile()) {
  g_names = std::move(names);
  rl_readline_name = "vkmaster";
  // These two come before using_history(), which sets the editor up.
  g_wake = interrupt.wake();
  rl_getc_function = GetCharacter;
  using_history();
  stifle_history(kHistoryLines);
  if (!history_.empty()) read_history(history_.c_str());
  rl_attempted_completion_function = Complete;
}

Prompt::~Prompt() {
  if (!history_.empty()) write_history(history_.c_str());
  g_names = {};
}

std::optional<std::string> Prompt::Next() {
  while (true) {
    const std::unique_ptr<char, decltype(&free)> line(readline(text_().c_str()), free);
    if (g_interrupted) std::rethrow_exception(std::exchange(g_interrupted, nullptr));
    if (line && interrupt_.signal() == 0) {
      if (*line != '\0') add_history(line.get());
      return line.get();
    }
    std::puts("");
    if (interrupt_.signal() != SIGINT) return std::nullopt;
    interrupt_.Clear();
  }
}

}  // namespace vkmaster
