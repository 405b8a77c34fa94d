#include "tools/jobmillctl/watch.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "inspect/file.h"
#include "inspect/runs.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/history_view.h"
#include "tools/jobmillctl/run_logs.h"
#include "tools/jobmillctl/run_view.h"

namespace jobmillctl {
namespace {

using inspect::Run;
using inspect::Runs;

constexpr std::chrono::milliseconds kPause{2000};
constexpr std::size_t kLastLines = 8;

volatile sig_atomic_t g_interrupted = 0;

void Interrupt(int) {
  g_interrupted = 1;
}

// The terminal gives single keys, does not show them, and has a second screen for the table. The
// destructor puts everything back.
class Screen {
 public:
  Screen() {
    tcgetattr(STDIN_FILENO, &before_);
    termios keys = before_;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    fmt::print("\x1b[?1049h\x1b[?25l");
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  ~Screen() {
    fmt::print("\x1b[?25h\x1b[?1049l");
    std::fflush(stdout);
    tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }

  void Draw(const std::vector<std::string>& lines) const {
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    const std::size_t rows = size.ws_row > 0 ? size.ws_row : 24;
    const std::size_t columns = size.ws_col > 0 ? size.ws_col : 80;
    std::string text = "\x1b[H";
    for (std::size_t row = 0; row < rows; ++row) {
      if (row < lines.size()) text += lines[row].substr(0, columns);
      text += row + 1 < rows ? "\x1b[K\r\n" : "\x1b[K";
    }
    fmt::print("{}", text);
    std::fflush(stdout);
  }

 private:
  termios before_{};
};

// The next key, 0 when none came in time.
char Key(std::chrono::milliseconds limit) {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  char key = 0;
  if (poll(&input, 1, static_cast<int>(limit.count())) <= 0) return 0;
  if (read(STDIN_FILENO, &key, 1) <= 0) return 'q';  // the terminal has gone
  return key;
}

enum class Order { kPort, kState, kAccount, kLongest };

struct View {
  Order order = Order::kPort;
  std::string filter;
  bool typing = false;  // the filter
  std::string open;     // the run that is shown alone
  std::optional<Run> shown;
  std::string end;  // how the run that was shown has ended
  std::size_t chosen = 0;
};

const char* Name(Order order) {
  switch (order) {
    case Order::kPort:
      break;
    case Order::kState:
      return "state";
    case Order::kAccount:
      return "account";
    case Order::kLongest:
      return "time in state";
  }
  return "port and start";
}

bool Holds(const Run& run, const std::string& filter) {
  return (Described(run) + " " + inspect::Name(run.state) + " " + run.windows_user.value_or(""))
             .find(filter) != std::string::npos;
}

// Runs that are equal in this order stay in that of port and start, so that lines do not jump.
void Arrange(Runs& found, const View& view) {
  std::erase_if(found.runs, [&](const Run& run) { return !Holds(run, view.filter); });
  const auto by = [&](auto key) { std::ranges::stable_sort(found.runs, {}, key); };
  if (view.order == Order::kState) by([](const Run& run) { return run.state; });
  if (view.order == Order::kAccount) {
    by([](const Run& run) { return run.user ? AccountName(*run.user) : ""; });
  }
  if (view.order == Order::kLongest) by([](const Run& run) { return run.since.value_or(1e18); });
}

std::vector<std::string> Lines(Runs& found, View& view) {
  const double now = inspect::Now();
  if (!view.open.empty()) {
    std::vector<std::string> lines = {"q: back to all runs"};
    try {
      const Run& run = Choose(found, view.open);
      view.shown = run;
      view.end.clear();
      const auto details = DetailsOf(run, now);
      lines.insert(lines.end(), details.begin(), details.end());
      for (const RunLog& log : LogsOf(run)) {
        lines.push_back(log.title);
        for (const std::string& line : LastLines(log, kLastLines)) lines.push_back("  " + line);
      }
    } catch (const Failed&) {
      // The logs may not tell the end yet. Then the next look asks them again.
      if (view.end.empty() && view.shown) view.end = SentenceOfEnd(*view.shown);
      lines.emplace_back("The run has ended" + (view.end.empty() ? "" : ": " + view.end));
    }
    return lines;
  }
  Arrange(found, view);
  std::vector<std::string> lines = LinesOf(found, now);
  view.chosen = std::min(view.chosen, std::max<std::size_t>(found.runs.size(), 1) - 1);
  if (!found.runs.empty()) {
    std::string& line = lines[lines.size() - found.runs.size() + view.chosen];
    line = ">" + line;
  }
  lines.insert(
      lines.begin(),
      view.typing
          ? "Filter: " + inspect::Printable(view.filter) + "_  (Enter: keep)"
          : fmt::format("q: end  s: sort (by {})  /: filter{}  j, k: choose  Enter: open",
                        Name(view.order),
                        view.filter.empty() ? "" : " (" + inspect::Printable(view.filter) + ")"));
  return lines;
}

// False when the person has had enough.
bool Obey(char key, const Runs& found, View& view) {
  if (view.typing) {
    if (key == '\n' || key == '\r') {
      view.typing = false;
    } else if (key == '\x7f' && !view.filter.empty()) {
      view.filter.pop_back();
    } else if (key >= ' ' && key < '\x7f') {
      view.filter += key;
    }
    return true;
  }
  switch (key) {
    case 'q':
      if (view.open.empty()) return false;
      view.open.clear();
      break;
    case 's':
      view.order = static_cast<Order>((static_cast<int>(view.order) + 1) % 4);
      break;
    case '/':
      view.filter.clear();
      view.typing = true;
      break;
    case 'j':
      ++view.chosen;
      break;
    case 'k':
      if (view.chosen > 0) --view.chosen;
      break;
    case '\n':
    case '\r':
      if (view.chosen < found.runs.size()) {
        view.open = std::to_string(found.runs[view.chosen].id.pid);
      }
      break;
    default:
      break;
  }
  return true;
}

// A key is obeyed with what was found last: on a machine with many runs each look at all of them
// takes longer than the next key.
int WatchOnTerminal(const std::string& run, const std::string& gates) {
  using Clock = std::chrono::steady_clock;
  const Screen screen;
  View view;
  view.open = run;
  Runs found;
  Clock::time_point next_look;
  while (g_interrupted == 0) {
    if (Clock::now() >= next_look) {
      found = inspect::FindRuns(gates);
      next_look = Clock::now() + kPause;
    }
    Runs shown = found;
    screen.Draw(Lines(shown, view));
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_look - Clock::now());
    if (!Obey(Key(std::max(left, {})), shown, view)) break;
  }
  return kOk;
}

int WatchInLines(const std::string& name, const std::string& gates) {
  std::map<pid_t, std::string> before;
  Runs seen;
  while (g_interrupted == 0) {
    const Runs found = inspect::FindRuns(gates);
    const std::string time = TimeText(inspect::Now());
    std::map<pid_t, std::string> now;
    for (const Run& run : found.runs) {
      if (!name.empty() && std::to_string(run.id.pid) != name) continue;
      const std::string text = fmt::format("{}: {}", Described(run), inspect::Name(run.state));
      now[run.id.pid] = text;
      if (before[run.id.pid] != text) fmt::print("{} {}\n", time, text);
    }
    for (const auto& [pid, text] : before) {
      if (!text.empty() && !now.contains(pid)) {
        const std::string end = SentenceOfEnd(*std::ranges::find_if(
            seen.runs, [id = pid](const Run& candidate) { return candidate.id.pid == id; }));
        fmt::print("{} {}: ended{}\n", time, text.substr(0, text.rfind(": ")),
                   end.empty() ? "" : ": " + end);
      }
    }
    before = std::move(now);
    seen = found;
    if (std::fflush(stdout) != 0) break;
    if (!name.empty() && before.empty()) break;
    poll(nullptr, 0, kPause.count());
  }
  return kOk;
}

}  // namespace

int Watch(const std::string& run, const std::string& gates) {
  // Choose() complains about a run that does not exist, and has to before the screen is taken.
  std::string name = run;
  if (!run.empty()) name = std::to_string(Choose(inspect::FindRuns(gates), run).id.pid);
  struct sigaction action {};
  action.sa_handler = Interrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  return isatty(STDOUT_FILENO) != 0 && isatty(STDIN_FILENO) != 0 ? WatchOnTerminal(name, gates)
                                                                 : WatchInLines(name, gates);
}

}  // namespace jobmillctl
