#include "tools/jobmillctl/run_logs.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include <fmt/format.h>

#include "inspect/file.h"
#include "inspect/process.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/run_view.h"

namespace jobmillctl {
namespace {

constexpr std::size_t kBlock = 1 << 20;
constexpr std::size_t kTail = 64 << 10;
constexpr useconds_t kPause = 300'000;

// Prints the lines of a log as they come. The end of a line that is still being written waits.
class Printer {
 public:
  explicit Printer(const RunLog& log) : file_(log.file, log.owner) {
    if (!file_.error().empty()) {
      throw Failed(fmt::format("{}: {}", inspect::Printable(log.title), file_.error()));
    }
  }

  void PrintWhatIsNew() {
    for (std::string block = file_.Read(offset_, kBlock); !block.empty();
         block = file_.Read(offset_, kBlock)) {
      offset_ += static_cast<std::int64_t>(block.size());
      rest_ += block;
      std::size_t begin = 0;
      for (std::size_t end = 0; (end = rest_.find('\n', begin)) != std::string::npos;) {
        fmt::print("{}\n", inspect::Printable(rest_.substr(begin, end - begin)));
        begin = end + 1;
      }
      rest_.erase(0, begin);
    }
    std::fflush(stdout);
  }

  void PrintRest() {
    if (!rest_.empty()) fmt::print("{}\n", inspect::Printable(rest_));
  }

 private:
  inspect::RunFile file_;
  std::int64_t offset_ = 0;
  std::string rest_;
};

RunLog FirstLogOf(const inspect::Run& run) {
  const std::vector<RunLog> logs = LogsOf(run);
  if (!logs.empty()) return logs.front();
  const auto reason = run.unknown.find("comms_log");
  throw Failed(fmt::format("{} has no log that is known here{}", Described(run),
                           reason == run.unknown.end() ? "" : ": " + reason->second));
}

}  // namespace

std::vector<RunLog> LogsOf(const inspect::Run& run) {
  std::vector<RunLog> logs;
  if (!run.user) return logs;
  if (!run.comms_log.empty()) logs.push_back({"Comms log", run.comms_log, *run.user});
  if (const std::string model = ModelOf(run); model.starts_with('/')) {
    logs.push_back({"Output of the simulator, " + inspect::Printable(model + ".out"),
                    model + ".out", *run.user});
  }
  return logs;
}

std::vector<std::string> LastLines(const RunLog& log, std::size_t count) {
  const inspect::RunFile file(log.file, log.owner);
  if (!file.error().empty()) return {file.error()};
  const std::string text = file.Tail(kTail);
  const std::vector<std::string_view> lines = inspect::Lines(text);
  std::vector<std::string> last;
  for (std::size_t i = lines.size() - std::min(count, lines.size()); i < lines.size(); ++i) {
    last.push_back(inspect::Printable(lines[i]));
  }
  return last;
}

int PrintLog(const inspect::Run& run) {
  Printer printer(FirstLogOf(run));
  printer.PrintWhatIsNew();
  printer.PrintRest();
  return kOk;
}

int FollowLog(const inspect::Run& run) {
  Printer printer(FirstLogOf(run));
  bool alive = true;
  do {
    // Asked first: what a run writes at its very end is printed, too.
    const auto process = inspect::Process::Open(run.id);
    alive = process && process->IsAlive();
    printer.PrintWhatIsNew();
    if (alive) usleep(kPause);
  } while (alive);
  printer.PrintRest();
  return kOk;
}

}  // namespace jobmillctl
