// The status page of a site as it might be, in a real browser: it fits the window. With the
// variable JOBMILL_PICTURES, the name of a directory, the pictures are kept there.

#include <cstdio>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/ending.h"
#include "inspect/history.h"
#include "tests/support/browser.h"
#include "tools/jobmillctl/history_view.h"
#include "tools/jobmillctl/measures.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/serve/board.h"
#include "tools/jobmillctl/serve/server.h"

namespace jobmillctl::serve {
namespace {

using inspect::Ending;
using inspect::RunState;

constexpr double kMinute = 60;
constexpr double kHour = 3600;

// A site of twelve runs, and how it came there in the last two hours.
class Scene {
 public:
  explicit Scene(double now) : now_(now) {
    for (double time = now - 2 * kHour; time <= now - 1; time += kMinute) Write(time);
    Write(now);
  }

  Board& board() { return board_; }

 private:
  struct Plan {
    const char* user;
    const char* model;
    RunState state;
    double began;  // seconds before now
    double since;
    double day;
    double load;
  };

  static inspect::Run RunOf(pid_t pid, const Plan& plan) {
    inspect::Run run;
    run.id = {.pid = pid, .start = 1};
    run.daemon = 1204;
    run.listen_port = 5000;
    run.user = 65534;
    run.windows_user = plan.user;
    run.path = std::string("/data/") + plan.user + "/";
    run.root = plan.model;
    run.processes = 16;
    run.version = "20172";
    run.comms_port = 9001 + pid % 100;
    return run;
  }

  // The run as it was at `time`: first it queued for ten minutes.
  std::optional<inspect::Run> At(pid_t pid, const Plan& plan, double time) const {
    const double began = now_ - plan.began;
    if (time < began) return std::nullopt;
    inspect::Run run = RunOf(pid, plan);
    run.began = began;
    const double host = began + 10 * kMinute;
    const bool queues = plan.state == RunState::kScript || time < host;
    run.state = queues ? RunState::kScript : plan.state;
    run.since = queues ? began : std::max(host, now_ - plan.since);
    if (queues) {
      run.scheduler = "Slurm";
      run.job = std::to_string(40'000 + pid);
      run.waits_for = "job " + *run.job + " of Slurm";
      run.last_heard = began;
      return run;
    }
    if (plan.state == RunState::kSimulatorListens) {
      run.host = "node3";
      run.waits_for = "a simulator that accepts the connection";
      return run;
    }
    const double done = std::min(1.0, (time - host) / (plan.began - 10 * kMinute));
    run.host = plan.load > 0 ? "127.0.0.1" : "node" + std::to_string(pid % 9 + 1);
    if (plan.load >= 0) {
      run.simulator = pid + 5;
      run.simulator_seconds = plan.load * (time - host);
    }
    run.requests = static_cast<std::int64_t>(400 * done * done + 12 * done);
    run.day = std::round(plan.day * (done > 0.6 ? 0.75 + 0.25 * done : 1.5 * done));
    const bool idle = run.state == RunState::kMaster;
    // Now and then it is the other's turn.
    if (plan.load > 0 && time < now_ - plan.since && static_cast<int>(time / 300) % 3 == 0) {
      run.state = idle ? RunState::kSimulator : RunState::kMaster;
    }
    run.waits_for =
        run.state == RunState::kMaster ? "the next request" : "an answer to \"run until\"";
    run.last_request = run.state == RunState::kMaster ? 10 : 8;
    run.last_heard = *run.since;
    if (plan.state == RunState::kLost)
      run.waits_for = "the end by its script, after the grace time";
    return run;
  }

  inspect::Runs RunsAt(double time) const {
    inspect::Runs found;
    inspect::Daemon daemon;
    daemon.id = {.pid = 1204, .start = 1};
    daemon.since = now_ - 80 * kHour;
    daemon.user = 0;
    daemon.options.listen_port = 5000;
    found.daemons = {daemon};
    const Plan plans[] = {
        {"asmith", "NORTH_FLANK", RunState::kSimulator, 110 * kMinute, 6 * kMinute, 3650, 7.94},
        {"asmith", "NORTH_FLANK_HI", RunState::kSimulator, 95 * kMinute, 31 * kMinute, 2190, 0},
        {"bjones", "RIDGE_WAG", RunState::kMaster, 100 * kMinute, 2 * kMinute, 1460, 3.2},
        {"bjones", "RIDGE_BASE", RunState::kMaster, 118 * kMinute, 70 * kMinute, 7300, 1.1},
        {"cwang", "DELTA_EOS", RunState::kSimulator, 80 * kMinute, 1 * kMinute, 900, -1},
        {"cwang", "DELTA_EOS_2", RunState::kScript, 75 * kMinute, 75 * kMinute, 0, -1},
        {"dlopez", "SALT_1", RunState::kScript, 12 * kMinute, 12 * kMinute, 0, -1},
        {"dlopez", "SALT_2", RunState::kScript, 9 * kMinute, 9 * kMinute, 0, -1},
        {"eberg", "FAULT_A", RunState::kSimulatorListens, 11 * kMinute, 50, 0, -1},
        {"eberg", "OLD_CASE", RunState::kLost, 115 * kMinute, 40 * kMinute, 365, 0},
    };
    pid_t pid = 20'000;
    for (const Plan& plan : plans) {
      if (auto run = At(pid += 37, plan, time)) found.runs.push_back(std::move(*run));
    }
    return found;
  }

  void Write(double time) {
    const inspect::Runs found = RunsAt(time);
    Json measures = Measure(found, time, measured_);
    measured_ = measures;
    Json& use = measures["daemons"][0];
    use["descriptors"] = 31;
    use["descriptors_limit"] = 524'288;
    const Json runs{{"status", JsonOf(found, time)}, {"measures", measures}};
    const Json snapshot{{"schema", 1},
                        {"version", "0.1.0"},
                        {"host", "head1"},
                        {"every_seconds", 60},
                        {"runs", Part(runs, time)},
                        {"history", Part(JsonOf(History(), time), time)},
                        {"check", Part(Check(), time)}};
    std::filesystem::rename(directory_.Write("fresh", snapshot.dump()),
                            directory_.File("snapshot.json"));
    board_.Refresh();
  }

  static Json Part(const Json& document, double time) {
    return {{"ok", true}, {"time", time}, {"took_seconds", 0.02}, {"document", document}};
  }

  static Json Check() {
    return {{"findings",
             {{{"id", "host.log-room"},
               {"severity", "warning"},
               {"file", "/var/log/jobmill"},
               {"line", 0},
               {"what", "84 MiB are free"},
               {"consequence", "the log will end in the middle of a line"},
               {"remedy", "make room, or let logrotate keep less"}}}},
            {"counts", {{"error", 0}, {"warning", 1}, {"unchecked", 0}}}};
  }

  inspect::History History() const {
    inspect::History history;
    const auto add = [&](double hours, const char* user, const char* root, Ending ending,
                         const char* sentence, double lasted, double day) {
      inspect::EndedRun run;
      run.listen_port = 5000;
      run.began = now_ - hours * kHour;
      run.id = "5000-" + std::to_string(static_cast<int>(hours));
      run.host_named = run.began + 4 * kMinute;
      run.ended = run.began + lasted * kHour;
      run.windows_user = user;
      run.account = user;
      run.path = std::string("/data/") + user + "/";
      run.root = root;
      run.day = day;
      run.end = {.ending = ending, .reason = "", .sentence = sentence};
      run.places = {{.file = *run.path + root + ".crvnlog", .line = 4711}};
      history.runs.push_back(run);
    };
    add(31, "bjones", "RIDGE_WAG", Ending::kShutDown, "The master shut it down", 6, 7300);
    add(19, "asmith", "NORTH_FLANK", Ending::kSimulatorEnded,
        "The simulator ended while it was asked to run until day 2920: read: End of file", 8.2,
        2891);
    add(17, "dlopez", "SALT_1", Ending::kNoHost,
        "The script named no host: job 39812 was cancelled by its time limit", 0.1, 0);
    add(15, "cwang", "DELTA_EOS", Ending::kMasterLeft, "The master left in the middle of the run",
        3.5, 410);
    return history;
  }

  double now_;
  TemporaryDirectory directory_;
  Board board_{directory_.File("snapshot.json"), {}};
  Json measured_;
};

TEST(StatusPicturesTest, PagesFitTheWindow) {
  if (!Browser::IsInstalled()) GTEST_SKIP() << "needs chromium-headless-shell";
  const TemporaryDirectory directory;
  const char* kept = getenv("JOBMILL_PICTURES");
  const std::string pictures = kept != nullptr ? kept : directory.path().string();
  Scene scene(inspect::Now());
  ChildProcess::Options options;
  options.output_file = directory.File("address");
  options.in_child = [&] {
    Serve(scene.board(), {.host = "127.0.0.1", .port = 0}, [](const Address& address) {
      printf("http://127.0.0.1:%d\n", address.port);
      fflush(stdout);
    });
    return 0;
  };
  const ChildProcess server({}, options);
  ASSERT_TRUE(Eventually([&] { return directory.Read("address").ends_with("\n"); }));
  std::string address = directory.Read("address");
  address.pop_back();
  Browser browser;
  for (const auto& [page, picture] :
       {std::pair("/", "status-runs.png"), std::pair("/runs/20037", "status-run.png")}) {
    browser.Open(address + page);
    EXPECT_GT(browser.Evaluate("document.querySelectorAll('.sign').length"), 10);
    EXPECT_LE(browser.Evaluate("document.documentElement.scrollWidth"), 1360);
    EXPECT_EQ(browser.Evaluate("[...document.querySelectorAll('.scroll')].filter("
                               "box => box.scrollWidth > box.clientWidth).length"),
              0);
    browser.Photograph(pictures + "/" + picture);
    EXPECT_GT(std::filesystem::file_size(pictures + "/" + picture), 20'000U);
  }
  EXPECT_THAT(browser.complaints(), testing::IsEmpty());
}

}  // namespace
}  // namespace jobmillctl::serve
