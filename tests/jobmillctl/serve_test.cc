// What `serve` makes of what `collect` has seen.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/runs.h"
#include "net/socket_client.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/status_server.h"
#include "tests/support/bytes.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/measures.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/serve/board.h"
#include "tools/jobmillctl/serve/fields.h"
#include "tools/jobmillctl/serve/html.h"
#include "tools/jobmillctl/serve/metrics.h"
#include "tools/jobmillctl/serve/plot.h"
#include "tools/jobmillctl/serve/server.h"

namespace jobmillctl::serve {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr double kNoon = 1'800'000'000;

// A run as the collector sees it.
inspect::Run RunOf(pid_t pid, inspect::RunState state, double now) {
  inspect::Run run;
  run.id = {.pid = pid, .start = 7};
  run.state = state;
  run.began = kNoon;
  run.since = now;
  run.listen_port = 5000;
  run.user = 0;
  run.windows_user = "alice";
  run.path = "/data/";
  run.root = "CASE" + std::to_string(pid);
  run.requests = 3;
  return run;
}

inspect::Daemon DaemonOf(int port) {
  inspect::Daemon daemon;
  daemon.id = {.pid = 1, .start = 1};
  daemon.since = kNoon;
  daemon.options.listen_port = port;
  return daemon;
}

// A file for a board, as the collector writes it.
class Site {
 public:
  void Write(const inspect::Runs& found, double now) {
    Json document{{"status", JsonOf(found, now)}, {"measures", Measure(found, now, measured_)}};
    measured_ = document.at("measures");
    snapshot_["runs"] = {
        {"ok", true}, {"time", now}, {"took_seconds", 0.01}, {"document", document}};
    Write();
  }

  void Write() {
    using Handler = Json::error_handler_t;
    directory_.Write("fresh", snapshot_.dump(-1, ' ', true, Handler::replace));
    std::filesystem::rename(directory_.File("fresh"), file());
    board_.Refresh();
  }

  std::string Ask(const std::string& target) const {
    return board_.Answer({"GET", target, "localhost:9480"}).body;
  }

  Json& snapshot() { return snapshot_; }
  Board& board() { return board_; }
  std::string file() const { return directory_.File("snapshot.json"); }

 private:
  TemporaryDirectory directory_;
  Json snapshot_{{"schema", 1}, {"version", "0"},    {"host", "head"}, {"every_seconds", 5},
                 {"runs", {}},  {"history", Json()}, {"check", Json()}};
  Json measured_;
  Board board_{file(), {}};
};

TEST(HtmlTest, NothingIsLeftThatAPageObeys) {
  EXPECT_EQ(Html("<script>alert('x')</script> & \"y\""),
            "&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt; &amp; &quot;y&quot;");
}

TEST(HtmlTest, WhatCannotBeSeenIsWritten) {
  EXPECT_EQ(Html(std::string("a\0\x1b[2J\n\x7f", 8)), "a\\x00\\x1b[2J\\x0a\\x7f");
  EXPECT_EQ(Html("\u202etxt.exe\u2066 \ufeff\U000e0041"),
            "\\u{202e}txt.exe\\u{2066} \\u{feff}\\u{e0041}");
  EXPECT_EQ(Html("Grüße 日本 \U0001f600"), "Grüße 日本 \U0001f600");
}

// A byte that begins a longer character must not hide what follows it.
TEST(HtmlTest, BrokenCharactersHideNothing) {
  EXPECT_EQ(Html("\xe2<b>"), "\\xe2&lt;b&gt;");
  EXPECT_EQ(Html("\xf0\x9f<"), "\\xf0\\x9f&lt;");
  EXPECT_EQ(Html("\xc0\xbc\xff"), "\\xc0\\xbc\\xff");
  EXPECT_EQ(Html("\xe2\x82"), "\\xe2\\x82");
}

TEST(HtmlTest, LongTextsAreCutBetweenCharacters) {
  EXPECT_EQ(Html("äöüß", 2), "äö…");
  EXPECT_EQ(Html("<<<", 2), "&lt;&lt;…");
  EXPECT_EQ(Html("ab", 2), "ab");
}

TEST(TargetTest, VariablesAreDecoded) {
  const Target target = ReadTarget("/a%20b?state=waiting+for%20it&text=%3Cx%26y&bare&%zz=%4");
  EXPECT_EQ(target.path, "/a b");
  EXPECT_EQ(target.variables.at("state"), "waiting for it");
  EXPECT_EQ(target.variables.at("text"), "<x&y");
  EXPECT_EQ(target.variables.at("bare"), "");
  EXPECT_EQ(target.variables.at("%zz"), "%4");
}

TEST(FieldsTest, TimesHaveTheirZone) {
  EXPECT_EQ(TimeIn("2027-01-15T08:00:00+00:00"), kNoon);
  EXPECT_EQ(TimeIn("2027-01-15T13:30:00+05:30"), kNoon);
  EXPECT_EQ(TimeIn("2027-01-15T03:30:00-04:30"), kNoon);
  EXPECT_EQ(TimeIn("2027-01-15T08:00:00"), std::nullopt);
  EXPECT_EQ(TimeIn("yesterday"), std::nullopt);
  EXPECT_EQ(TimeIn(Json()), std::nullopt);
}

TEST(BoardTest, PageShowsRunsInTheirStatesAndTheFilters) {
  Site site;
  inspect::Runs found;
  found.daemons = {DaemonOf(5000)};
  pid_t pid = 100;
  for (const inspect::RunState state : kStates) found.runs.push_back(RunOf(++pid, state, kNoon));
  found.runs[3].simulator = 17;
  site.Write(found, kNoon);
  const std::string all = site.Ask("/");
  for (const inspect::Run& run : found.runs)
    EXPECT_THAT(all, HasSubstr("<b>" + *run.root + "</b>"));
  pid = 100;
  for (const inspect::RunState state : kStates) {
    const std::string page = site.Ask("/?state=" + QueryValue(Name(state)));
    ++pid;
    for (const inspect::Run& run : found.runs) {
      EXPECT_EQ(page.find("<b>" + *run.root + "</b>") != std::string::npos, run.id.pid == pid);
    }
  }
  EXPECT_THAT(site.Ask(std::string("/?state=") + QueryValue(kLicence)),
              AllOf(HasSubstr("CASE104"), HasSubstr("CASE105"), Not(HasSubstr("CASE103"))));
  EXPECT_THAT(site.Ask("/?text=case108"), AllOf(HasSubstr("CASE108"), Not(HasSubstr("CASE107"))));
  EXPECT_THAT(site.Ask("/?text=%3Cnone%3E"),
              AllOf(HasSubstr("No run fits the filter"), HasSubstr("value=\"&lt;none&gt;\"")));
}

TEST(BoardTest, HostileTextsAreOnlyTexts) {
  Site site;
  const std::string hostile =
      "</title><script>evil()</script><img src=x onerror=evil()>\x1b[2J\xff\"'`" +
      std::string(32'000, 'x');
  inspect::Runs found;
  inspect::Run run = RunOf(1, inspect::RunState::kScript, kNoon);
  run.windows_user = run.path = run.root = run.version = run.host = run.scheduler = run.job =
      run.date = run.cause = run.waits_for = hostile;
  run.unknown["comms_log"] = hostile;
  found.runs = {run};
  found.missing = {hostile};
  site.Write(found, kNoon);
  for (const std::string target : {"/", "/runs/1", "/?text=evil", "/?text=%22%3E%3Cscript%3E%e2%3C",
                                   "/?state=%22%3E%3Cscript%3E", "/runs/%3Cscript%3E"}) {
    const std::string page = site.Ask(target);
    EXPECT_EQ(page.find("<script>"), std::string::npos) << target;
    EXPECT_EQ(page.find("<img"), std::string::npos) << target;
    EXPECT_EQ(page.find('\x1b'), std::string::npos) << target;
    EXPECT_THAT(page, HasSubstr("<script src=\"/page.js\" defer></script>"));
    EXPECT_TRUE(page.ends_with("</html>\n"));
  }
  const Json read = Json::parse(site.Ask("/api/runs"));
  EXPECT_THAT(read["runs"][0]["root"].get<std::string>(), HasSubstr("<script>"));
  EXPECT_LT(site.Ask("/").size(), 60'000U);  // names are cut where there is a table
}

TEST(BoardTest, OldSnapshotStaysAndIsSaidToBeOld) {
  Site site;
  EXPECT_THAT(site.Ask("/"), HasSubstr("Nothing has been collected yet"));
  EXPECT_EQ(site.board().Answer({"GET", "/api/runs", "localhost"}).status, 503U);
  inspect::Runs found;
  found.runs = {RunOf(1, inspect::RunState::kScript, kNoon)};
  site.Write(found, inspect::Now());
  EXPECT_THAT(site.Ask("/"), AllOf(HasSubstr("CASE1"), Not(HasSubstr("has not been heard"))));
  site.Write(found, inspect::Now() - 3600);
  EXPECT_THAT(site.Ask("/"), AllOf(HasSubstr("CASE1"), HasSubstr("has not been heard since"),
                                   HasSubstr("1h00m ago")));
  site.snapshot()["runs"]["ok"] = false;
  site.Write();
  EXPECT_THAT(site.Ask("/"), AllOf(HasSubstr("CASE1"), HasSubstr("last look at the runs failed")));
  // What is no snapshot changes nothing.
  const TemporaryDirectory directory;
  std::filesystem::rename(directory.Write("broken", "{\"schema\":1,"), site.file());
  site.board().Refresh();
  EXPECT_THAT(site.Ask("/"), HasSubstr("CASE1"));
}

// What is seen then is no later look at what was seen before.
TEST(BoardTest, RunsAreShownWhereTheClockWasSetBack) {
  Site site;
  inspect::Runs found;
  found.runs = {RunOf(1, inspect::RunState::kMaster, kNoon)};
  site.Write(found, kNoon + 100);
  found.runs = {RunOf(2, inspect::RunState::kSimulator, kNoon)};
  found.runs[0].simulator = 17;
  site.Write(found, kNoon + 10);
  EXPECT_THAT(site.Ask("/"), AllOf(HasSubstr("CASE2"), Not(HasSubstr("CASE1")),
                                   HasSubstr("not known before the next look")));
}

TEST(BoardTest, OtherNamesThanItsOwnAreRefused) {
  const Board board("/nowhere", {"status.example"});
  const auto status = [&](const std::string& host) {
    return board.Answer({"GET", "/metrics", host}).status;
  };
  for (const char* host : {"localhost", "localhost:9480", "127.0.0.1:9480", "192.0.2.7",
                           "[::1]:9480", "[2001:db8::1]", "status.example:80"}) {
    EXPECT_EQ(status(host), 200U) << host;
  }
  for (const char* host : {"", "evil.example", "evil.example:9480", "127.0.0.1.evil.example",
                           "localhost.evil.example", "1.2.3", "[::1", "[evil]", ":9480"}) {
    EXPECT_EQ(status(host), 421U) << host;
  }
}

TEST(BoardTest, OnlyLooksArePermitted) {
  const Board board("/nowhere", {});
  for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "TRACE", "get"}) {
    EXPECT_EQ(board.Answer({method, "/", "localhost"}).status, 405U) << method;
  }
  EXPECT_EQ(board.Answer({"HEAD", "/", "localhost"}).status, 200U);
  for (const char* target :
       {"/nothing", "/../etc/passwd", "/runs/", "/api/", "", "*", "/page.css/"}) {
    EXPECT_EQ(board.Answer({"GET", target, "localhost"}).status, 404U) << target;
  }
}

TEST(TimelineTest, RunIsFollowedThroughItsStates) {
  Site site;
  const auto look = [&](inspect::RunState state, double since, double now) {
    inspect::Runs found;
    inspect::Run run = RunOf(1, state, since);
    run.day = now - kNoon;
    run.requests = static_cast<std::int64_t>(now - kNoon) / 10;
    run.simulator = 17;
    run.simulator_seconds = now - kNoon;
    found.runs = {run};
    site.Write(found, now);
  };
  look(inspect::RunState::kHandshake, kNoon, kNoon + 1);
  look(inspect::RunState::kScript, kNoon + 2, kNoon + 6);
  look(inspect::RunState::kScript, kNoon + 2, kNoon + 11);
  look(inspect::RunState::kMaster, kNoon + 62, kNoon + 66);
  look(inspect::RunState::kSimulator, kNoon + 70, kNoon + 71);
  const Json seen = Json::parse(site.Ask("/api/runs/1"));
  std::vector<std::pair<std::string, double>> states;
  for (const Json& span : seen.at("states")) states.emplace_back(span["state"], span["seconds"]);
  EXPECT_THAT(states, testing::ElementsAre(std::pair("handshake", 2.0),
                                           std::pair("waiting for the script", 60.0),
                                           std::pair("waiting for the master", 8.0),
                                           std::pair("waiting for the simulator", 1.0)));
  EXPECT_EQ(seen.at("queued_seconds"), 60.0);
  EXPECT_EQ(seen.at("simulator_processors"), 1.0);
  EXPECT_EQ(seen.at("points").size(), 5U);
  EXPECT_EQ(seen.at("points").back().at("day"), 71.0);
  EXPECT_EQ(seen.at("run"), Json::parse(site.Ask("/api/runs")).at("runs").at(0));
  EXPECT_THAT(site.Ask("/runs/1"),
              AllOf(HasSubstr("computing, 1.00 processors"), HasSubstr("Simulated days"),
                    HasSubstr("Requests per minute"), HasSubstr("<dd>1m</dd>")));
  // It ends, and can still be looked at.
  site.Write({}, kNoon + 80);
  EXPECT_FALSE(Json::parse(site.Ask("/api/runs/1")).at("gone").is_null());
  EXPECT_THAT(site.Ask("/runs/1"), HasSubstr("it has been gone since"));
  EXPECT_EQ(site.board().Answer({"GET", "/runs/2", "localhost"}).status, 404U);
}

TEST(TimelineTest, SimulatorWithoutProcessorTimeIsSaidToBeStuck) {
  Site site;
  const double now = inspect::Now();
  for (const double second : {10, 20, 90}) {
    inspect::Runs found;
    inspect::Run run = RunOf(1, inspect::RunState::kSimulator, now - 200);
    run.simulator = 17;
    run.simulator_seconds = 5;
    found.runs = {run};
    site.Write(found, now - 100 + second);
  }
  EXPECT_THAT(site.Ask("/"), HasSubstr("stuck? no processor time for 1m"));
}

TEST(TimelineTest, QueueThatNobodySawIsNotMadeUp) {
  Site site;
  inspect::Runs found;
  found.runs = {RunOf(1, inspect::RunState::kMaster, kNoon + 50)};
  site.Write(found, kNoon + 60);
  EXPECT_TRUE(Json::parse(site.Ask("/api/runs/1")).at("queued_seconds").is_null());
  EXPECT_THAT(site.Ask("/runs/1"), HasSubstr("not known: its script had named the host"));
  // One that came and was through between two looks queued for less than that.
  inspect::Run second = RunOf(2, inspect::RunState::kMaster, kNoon + 64);
  second.began = kNoon + 62;
  found.runs.push_back(second);
  site.Write(found, kNoon + 65);
  EXPECT_EQ(Json::parse(site.Ask("/api/runs/2")).at("queued_seconds"), 3.0);
  EXPECT_EQ(Json::parse(site.Ask("/api/runs/2")).at("queued_at_most"), true);
  EXPECT_THAT(site.Ask("/runs/2"), HasSubstr("<dd>under 3s</dd>"));
}

TEST(TimelineTest, ItIsBounded) {
  Timelines timelines;
  const auto status = [](double now, int id) {
    inspect::Run run = RunOf(
        id,
        static_cast<int>(now) % 2 == 0 ? inspect::RunState::kMaster : inspect::RunState::kSimulator,
        now);
    run.day = now - kNoon;
    inspect::Runs found;
    found.runs = {run};
    return JsonOf(found, now);
  };
  for (int second = 0; second < 5000; ++second)
    timelines.Add(status(kNoon + second, 1), kNoon + second);
  const Timeline* run = timelines.Find("1");
  EXPECT_EQ(run->states().size(), 500U);
  EXPECT_TRUE(run->states_left_out());
  EXPECT_LE(run->points().size(), 720U);
  EXPECT_GE(run->points().size(), 300U);
  EXPECT_EQ(run->points().front().day, 0.0);
  EXPECT_EQ(run->points().back().day, 4999.0);
  double longest = 0;
  for (std::size_t i = 1; i < run->points().size(); ++i) {
    longest = std::max(longest, run->points()[i].time - run->points()[i - 1].time);
  }
  EXPECT_LE(longest, 40);
  EXPECT_NEAR(run->SecondsIn("waiting for the master"), 2500, 2);
  // Of those that have ended the last 200.
  for (int id = 2; id < 300; ++id) timelines.Add(status(kNoon + 5000 + id, id), kNoon + 5000 + id);
  EXPECT_EQ(timelines.Find("1"), nullptr);
  EXPECT_NE(timelines.Find("298"), nullptr);
}

std::map<std::string, std::string> SamplesOf(const std::string& metrics) {
  std::map<std::string, std::string> samples;
  for (std::size_t begin = 0; begin < metrics.size(); begin = metrics.find('\n', begin) + 1) {
    const std::string line = metrics.substr(begin, metrics.find('\n', begin) - begin);
    const std::size_t blank = line.rfind(' ');
    if (!line.starts_with('#')) samples[line.substr(0, blank)] = line.substr(blank + 1);
  }
  return samples;
}

TEST(MetricsTest, EveryValueOfEveryLabelIsThere) {
  Site site;
  const auto nothing = SamplesOf(site.Ask("/metrics"));
  EXPECT_EQ(nothing.at("jobmill_collector_up"), "0");
  EXPECT_EQ(nothing.at("jobmill_daemons"), "NaN");
  inspect::Runs found;
  found.daemons = {DaemonOf(5000), DaemonOf(5001)};
  const double now = inspect::Now();
  found.runs = {RunOf(1, inspect::RunState::kScript, now - 7200),
                RunOf(2, inspect::RunState::kScript, now - 60),
                RunOf(3, inspect::RunState::kLost, now)};
  found.gates.resize(2);
  found.gates[0].links.resize(2);
  found.gates[0].links[1].broken = true;
  found.gates[0].counts["denied"] = 4;
  found.gates[0].list_expires = 1500;
  found.gates[1].links.resize(1);
  found.gates[1].counts["denied"] = 3;
  site.Write(found, now);
  const auto some = SamplesOf(site.Ask("/metrics"));
  EXPECT_EQ(some.at("jobmill_collector_up"), "1");
  EXPECT_EQ(some.at("jobmill_daemons"), "2");
  EXPECT_EQ(some.at("jobmill_runs{state=\"waiting for the script\"}"), "2");
  EXPECT_EQ(some.at("jobmill_runs{state=\"lost\"}"), "1");
  EXPECT_EQ(some.at("jobmill_runs{state=\"handshake\"}"), "0");
  EXPECT_EQ(some.at("jobmill_oldest_wait_seconds{state=\"waiting for the script\"}"), "7200");
  EXPECT_EQ(some.at("jobmill_refusals_total{reason=\"unknown user\"}"), "0");
  EXPECT_EQ(some.at("jobmill_comms_ports"), "200");
  EXPECT_EQ(some.at("jobmill_gates"), "2");
  EXPECT_EQ(some.at("jobmill_gate_links"), "3");
  EXPECT_EQ(some.at("jobmill_gate_links_broken"), "1");
  EXPECT_EQ(some.at("jobmill_gate_events_total{event=\"denied\"}"), "7");
  EXPECT_EQ(some.at("jobmill_gate_events_total{event=\"admitted\"}"), "0");
  EXPECT_EQ(some.at("jobmill_gate_revocation_list_expiry_timestamp_seconds"), "1500");
  using Sample = std::pair<const std::string, std::string>;
  EXPECT_TRUE(std::ranges::equal(some, nothing, {}, &Sample::first, &Sample::first));
}

// The labels are lists of the program's own: no run, user, host or path.
TEST(MetricsTest, TheirNumberDoesNotGrow) {
  Site site;
  inspect::Runs found;
  site.Write(found, kNoon);
  const std::size_t before = SamplesOf(site.Ask("/metrics")).size();
  for (int i = 0; i < 100; ++i) {
    found.runs.push_back(RunOf(i, inspect::RunState::kMaster, kNoon));
    found.runs.back().host = "host" + std::to_string(i);
  }
  site.Write(found, kNoon + 1);
  EXPECT_EQ(SamplesOf(site.Ask("/metrics")).size(), before);
}

TEST(MetricsTest, PromtoolFindsNothing) {
  if (!std::filesystem::exists("/usr/bin/promtool")) GTEST_SKIP() << "needs promtool";
  Site site;
  const TemporaryDirectory directory;
  const auto check = [&](const std::string& metrics) {
    ChildProcess::Options options;
    options.input_file = directory.Write("metrics", metrics);
    options.output_file = directory.File("said");
    ChildProcess promtool({"/usr/bin/promtool", "check", "metrics"}, options);
    EXPECT_TRUE(promtool.Wait(std::chrono::seconds(30)).has_value());
    return directory.Read("said");
  };
  EXPECT_EQ(check(site.Ask("/metrics")), "");
  inspect::Runs found;
  found.daemons = {DaemonOf(5000)};
  found.runs = {RunOf(1, inspect::RunState::kMaster, kNoon)};
  site.Write(found, kNoon);
  EXPECT_EQ(check(site.Ask("/metrics")), "");
  // It would say something.
  EXPECT_NE(
      check(std::regex_replace(site.Ask("/metrics"), std::regex("requests_total"), "requests")),
      "");
}

TEST(MeasuresTest, LinesOfTheLogAreCounted) {
  inspect::Runs none;
  Json measured = Measure(none, kNoon, {});
  CountLines(
      "Windows user 'a' not found in administration file\n"
      "Windows user received: 'a' not found in administration file\n"
      "Windows user 'b' does not have permissions to run Varnok\n"
      "Failed to get password entry for 'c'\n"
      "Failed to set user ID for Tolmen job - error = 1\n"
      "Failed to read users administration file - Could not open\n"
      "Failed to read /usr/lib/jobmill/.vk_corvane_env: No such file or directory\n"
      "Incorrect response from Corvane - no controller will be launched\n"
      "Socket connection failed: x\nSocket connection failed\n"
      "Host detected: node7\nHost detected: node8\nNo host detected, exiting.\n"
      "Error: fork failed\nHost detected: cut",
      measured);
  EXPECT_EQ(measured.at("launches"), Json({{"host named", 2}, {"no host", 1}, {"not started", 1}}));
  EXPECT_EQ(measured.at("refusals"), Json({{"unknown user", 1},
                                           {"user not allowed", 1},
                                           {"no account", 1},
                                           {"account change", 1},
                                           {"user file", 1},
                                           {"environment", 1},
                                           {"not a master", 1},
                                           {"broken connection", 2}}));
}

TEST(MeasuresTest, LogIsCountedOnceThroughRotationAndRestart) {
  const TemporaryDirectory directory;
  const std::string line = "Host detected: node7\n";
  inspect::Runs found;
  found.daemons = {DaemonOf(5000)};
  found.daemons[0].log = directory.Write("log", line + line);
  Json measured;
  double now = kNoon + 1;
  const auto count = [&] {
    measured = Measure(found, ++now, measured);
    return measured.at("launches").at("host named").get<int>();
  };
  EXPECT_EQ(count(), 0);  // what was there before is none of ours
  directory.Write("log", line + line + line + "Host det");
  EXPECT_EQ(count(), 1);
  directory.Write("log", line + line + line + "Host detected: x\n");
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(count(), 2);
  directory.Write("log", line);  // emptied by a rotation
  EXPECT_EQ(count(), 3);
  std::filesystem::rename(directory.Write("fresh", line + line), directory.File("log"));
  EXPECT_EQ(count(), 5);
  // A daemon that came later is counted from its beginning.
  found.daemons.push_back(DaemonOf(5001));
  found.daemons[1].since = kNoon + 100;
  found.daemons[1].log = directory.Write("second", line);
  EXPECT_EQ(count(), 6);
}

TEST(MeasuresTest, LogThatIsMissingIsCountedWhenItIsThereAgain) {
  const TemporaryDirectory directory;
  const std::string line = "Host detected: node7\n";
  inspect::Runs found;
  found.daemons = {DaemonOf(5000)};
  found.daemons[0].log = directory.Write("log", line);
  Json measured = Measure(found, kNoon + 1, {});
  EXPECT_EQ(measured.at("daemons").at(0).at("log_bytes"), line.size());
  EXPECT_TRUE(measured.at("daemons").at(0).at("log_free_bytes").is_number());
  std::filesystem::rename(directory.File("log"), directory.File("log.1"));
  measured = Measure(found, kNoon + 2, measured);
  EXPECT_EQ(measured.at("launches").at("host named"), 0);
  EXPECT_TRUE(measured.at("daemons").at(0).at("log_bytes").is_null());
  EXPECT_TRUE(measured.at("daemons").at(0).at("log_free_bytes").is_null());
  directory.Write("log", line + line);
  measured = Measure(found, kNoon + 3, measured);
  EXPECT_EQ(measured.at("launches").at("host named"), 2);
}

TEST(MeasuresTest, RequestsAndTimeOnlyGrow) {
  inspect::Runs found;
  found.runs = {RunOf(1, inspect::RunState::kMaster, kNoon)};
  found.runs[0].requests = 100;
  Json measured = Measure(found, kNoon + 10, {});
  EXPECT_EQ(measured.at("requests"), 0);  // it was there before
  found.runs[0].requests = 130;
  found.runs.push_back(RunOf(2, inspect::RunState::kMaster, kNoon + 12));
  found.runs[1].began = kNoon + 12;
  found.runs[1].requests = 5;
  measured = Measure(found, kNoon + 15, measured);
  EXPECT_EQ(measured.at("requests"), 35);
  EXPECT_EQ(measured.at("run_seconds").at("waiting for the master"), 10.0);
  found.runs = {};
  measured = Measure(found, kNoon + 20, measured);
  EXPECT_EQ(measured.at("requests"), 35);
  EXPECT_EQ(measured.at("answered"), Json::object());
}

// A measurement that an older version has left knows fewer states.
TEST(MeasuresTest, StateThatTheLastMeasurementDoesNotHaveIsCounted) {
  inspect::Runs found;
  found.runs = {RunOf(1, inspect::RunState::kEnding, kNoon)};
  Json before = Measure({}, kNoon, nullptr);
  before.at("run_seconds").erase("ending");
  EXPECT_EQ(Measure(found, kNoon + 10, before).at("run_seconds").at("ending"), 10.0);
}

// A connection to a server.
class Peer {
 public:
  explicit Peer(int port) : link_("127.0.0.1", port) {}
  // What comes back within a second of silence.
  std::string Ask(const std::string& text) {
    WriteAll(link_.handle(), text);
    return ReadExactly(link_.handle(), 1 << 20, 1000);
  }
  static bool HasEnded(const std::unique_ptr<Peer>& peer) {
    char byte = 0;
    return recv(peer->link_.handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
  }

 private:
  struct Link : SocketClient {
    using SocketClient::SocketClient;
    int handle() const { return handle_; }
  };
  Link link_;
};

constexpr const char* kGet =
    "GET /metrics HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";

TEST(ServerTest, AnswersHaveSafeHeaders) {
  const StatusServer server("/nowhere");
  const std::string answer = Peer(server.port()).Ask(kGet);
  EXPECT_THAT(answer, testing::StartsWith("HTTP/1.1 200 OK\r\n"));
  for (const auto& [name, value] : kHeaders) {
    EXPECT_THAT(answer, HasSubstr(std::string(name) + ": " + value + "\r\n"));
  }
  EXPECT_THAT(answer, HasSubstr("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
  EXPECT_THAT(answer, Not(HasSubstr("Access-Control")));
  EXPECT_THAT(
      Peer(server.port()).Ask("GET / HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n\r\n"),
      testing::StartsWith("HTTP/1.1 421 "));
  EXPECT_THAT(
      Peer(server.port()).Ask("DELETE / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"),
      AllOf(testing::StartsWith("HTTP/1.1 405 "), HasSubstr("Allow: GET, HEAD\r\n")));
  const std::string head =
      Peer(server.port()).Ask("HEAD / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  EXPECT_THAT(head, HasSubstr("Content-Length: "));
  EXPECT_TRUE(head.ends_with("\r\n\r\n"));
}

TEST(ServerTest, ConnectionIsKeptForFurtherRequests) {
  const StatusServer server("/nowhere");
  Peer peer(server.port());
  const std::string open = "GET /icon.svg HTTP/1.1\r\nHost: localhost\r\n\r\n";
  const std::string answers = peer.Ask(open + open + kGet);
  std::size_t count = 0;
  for (std::size_t at = 0; (at = answers.find("HTTP/1.1 200 OK", at)) != std::string::npos; ++at)
    ++count;
  EXPECT_EQ(count, 3U);
}

TEST(ServerTest, StrangersCannotHoldItUp) {
  const StatusServer server("/nowhere");
  // Longer than a header may be, no request at all, a body, and a hundred who say nothing.
  EXPECT_EQ(Peer(server.port()).Ask("GET / HTTP/1.1\r\nX: " + std::string(10'000, 'x')), "");
  EXPECT_EQ(Peer(server.port()).Ask("\x16\x03\x01 hello\r\n\r\n"), "");
  EXPECT_EQ(Peer(server.port())
                .Ask("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9999999999\r\n\r\nx"),
            "");
  std::vector<std::unique_ptr<Peer>> silent;
  silent.reserve(200);
  for (int i = 0; i < 40; ++i) silent.push_back(std::make_unique<Peer>(server.port()));
  EXPECT_THAT(Peer(server.port()).Ask(kGet), testing::StartsWith("HTTP/1.1 200 OK\r\n"));
  for (int i = 0; i < 100; ++i) silent.push_back(std::make_unique<Peer>(server.port()));
  // It keeps 64 of them.
  EXPECT_TRUE(Eventually([&] { return std::ranges::count_if(silent, &Peer::HasEnded) == 76; }));
  EXPECT_LT(OpenDescriptors(server.pid()), 80U);
  silent.clear();
  EXPECT_TRUE(
      Eventually([&] { return Peer(server.port()).Ask(kGet).starts_with("HTTP/1.1 200 OK\r\n"); }));
}

TEST(ServerTest, AddressIsANumber) {
  const Outcome name = Jobmillctl({"serve", "--listen", "localhost:9480"});
  EXPECT_EQ(name.status, 1);
  EXPECT_EQ(name.err,
            "jobmillctl: 'localhost:9480' is no address and port, such as 127.0.0.1:9480\n");
  for (const char* wrong : {"127.0.0.1", "127.0.0.1:", "127.0.0.1:70000", ":80", "127.0.0.1:8x"}) {
    EXPECT_EQ(Jobmillctl({"serve", "--listen", wrong}).status, 1) << wrong;
  }
  const StatusServer server("/nowhere");
  const Outcome taken =
      Jobmillctl({"serve", "--listen", "127.0.0.1:" + std::to_string(server.port())});
  EXPECT_EQ(taken.status, 1);
  EXPECT_THAT(taken.err, HasSubstr("Address already in use"));
}

// A run that has ended, as `history --json` tells it.
Json EndedRunOf(const std::string& root, double began, const std::string& ending, bool failed) {
  return {{"id", "5000-1"},
          {"port", 5000},
          {"root", root},
          {"path", "/data/"},
          {"ending", ending},
          {"failed", failed},
          {"sentence", "Why"},
          {"connected", TimeText(began)},
          {"ended", TimeText(began + 60)},
          {"lasted_seconds", 60},
          {"doubts", Json::array()},
          {"places", {{{"file", "/data/x.crvnlog"}, {"line", 3}}}}};
}

void SetHistory(Site& site, const Json& runs, double now) {
  site.snapshot()["history"] = {
      {"ok", true},
      {"time", now},
      {"document", {{"schema", 1}, {"runs", runs}, {"missing", {"/var/log: no\x1b"}}}}};
  site.Write();
}

TEST(EndedTest, FailedOnesCanBeShownAlone) {
  Site site;
  const double now = inspect::Now();
  site.Write({}, now);
  Json good = EndedRunOf("GOOD", now - 100, "shut down", false);
  Json bad = EndedRunOf("BAD", now - 50, "no host", true);
  bad["doubts"] = {"its lines are <mixed>"};
  bad["places"][0]["line"] = 0;
  SetHistory(site, {good, bad}, now);
  const std::string all = site.Ask("/");
  EXPECT_THAT(all, AllOf(HasSubstr("GOOD"), HasSubstr("BAD"), HasSubstr("x.crvnlog:3</small>"),
                         HasSubstr("x.crvnlog</small>"), HasSubstr("Not known: /var/log: no")));
  EXPECT_THAT(all, HasSubstr("<small>not certain: its lines are &lt;mixed&gt;</small>"));
  EXPECT_LT(all.find("BAD"), all.find("GOOD"));
  const std::string failed = site.Ask("/?ended=failed");
  EXPECT_THAT(failed, AllOf(Not(HasSubstr("GOOD")), HasSubstr("BAD")));
  EXPECT_THAT(site.Ask("/?text=good"), Not(HasSubstr("BAD")));
  EXPECT_THAT(site.Ask("/?text=nobody"), HasSubstr("<p>None.</p>"));
  const auto metrics = SamplesOf(site.Ask("/metrics"));
  EXPECT_EQ(metrics.at("jobmill_recent_endings{ending=\"shut down\"}"), "1");
  EXPECT_EQ(metrics.at("jobmill_recent_endings{ending=\"no host\"}"), "1");
  EXPECT_EQ(metrics.at("jobmill_recent_endings{ending=\"refused\"}"), "0");
  EXPECT_EQ(Json::parse(site.Ask("/api/history")).at("runs").size(), 2U);
}

TEST(EndedTest, OldOnesAreNoRecentEndingsAndOnlyTheLastAreShown) {
  Site site;
  const double now = inspect::Now();
  site.Write({}, now);
  Json runs = Json::array();
  for (int i = 0; i < 2000; ++i) {
    runs.push_back(EndedRunOf("RUN" + std::to_string(i) + ".", now - 200'000 + i, "no host", true));
  }
  SetHistory(site, runs, now);
  EXPECT_EQ(SamplesOf(site.Ask("/metrics")).at("jobmill_recent_endings{ending=\"no host\"}"), "0");
  EXPECT_THAT(site.Ask("/"), AllOf(HasSubstr("RUN1999."), Not(HasSubstr("RUN0."))));
}

TEST(EndedTest, RunThatWasSeenIsLinkedUnlessTwoCouldBeMeant) {
  Site site;
  const double now = inspect::Now();
  inspect::Runs found;
  for (const int id : {1, 2, 3, 4}) {
    found.runs.push_back(RunOf(id, inspect::RunState::kMaster, now - 100));
    found.runs.back().began = now - 100;
  }
  found.runs[2].root = found.runs[3].root = "TWICE";
  found.runs[1].began = std::nullopt;
  site.Write(found, now - 50);
  site.Write({}, now);
  Json other_port = EndedRunOf("CASE1", now - 100, "shut down", false);
  other_port["port"] = 5001;
  Json no_time = EndedRunOf("CASE1", now - 100, "shut down", false);
  no_time["connected"] = nullptr;
  const auto linked = [&](const Json& run) {
    SetHistory(site, Json::array({run}), now);
    return site.Ask("/").find("how it ran") != std::string::npos;
  };
  EXPECT_TRUE(linked(EndedRunOf("CASE1", now - 100, "shut down", false)));
  EXPECT_FALSE(linked(EndedRunOf("CASE1", now - 90, "shut down", false)));
  EXPECT_FALSE(linked(EndedRunOf("CASE2", now - 100, "shut down", false)));
  EXPECT_FALSE(linked(EndedRunOf("TWICE", now - 100, "shut down", false)));
  EXPECT_FALSE(linked(other_port));
  EXPECT_FALSE(linked(no_time));
}

TEST(FindingsTest, ConfigurationIsShownWithItsAge) {
  Site site;
  const double now = inspect::Now();
  site.Write({}, now);
  EXPECT_THAT(site.Ask("/"), HasSubstr("It has not been looked at yet."));
  const auto check = [&](const Json& part) {
    site.snapshot()["check"] = part;
    site.Write();
    return site.Ask("/");
  };
  EXPECT_THAT(check({{"ok", false}, {"time", now - 10}}), HasSubstr("not been looked at yet."));
  EXPECT_THAT(check({{"ok", false}, {"time", now - 1000}}), HasSubstr("It could not be looked at"));
  const Json counts = {{"error", 0}, {"warning", 0}, {"unchecked", 0}};
  EXPECT_THAT(check({{"ok", true},
                     {"time", now - 130},
                     {"document", {{"findings", Json::array()}, {"counts", counts}}}}),
              AllOf(HasSubstr("found 2m ago"), HasSubstr("Nothing is wrong.")));
  Json findings = Json::array();
  for (const char* severity : {"error", "warning", "unchecked"}) {
    findings.push_back({{"id", "users.star"},
                        {"severity", severity},
                        {"what", "w"},
                        {"consequence", "c"},
                        {"remedy", "r"},
                        {"file", "/etc/users"},
                        {"line", findings.size()}});
  }
  const Json some = {{"error", 1}, {"warning", 1}, {"unchecked", 1}};
  EXPECT_THAT(
      check(
          {{"ok", true}, {"time", now}, {"document", {{"findings", findings}, {"counts", some}}}}),
      AllOf(HasSubstr("/etc/users<small>"), HasSubstr("/etc/users:1<small>"),
            HasSubstr("/etc/users:2<small>")));
  EXPECT_EQ(SamplesOf(site.Ask("/metrics")).at("jobmill_check_findings{severity=\"error\"}"), "1");
  EXPECT_EQ(Json::parse(site.Ask("/api/check")).at("counts"), some);
}

TEST(PageTest, DaemonThatIsOlderAndWhatIsMissingAreSaid) {
  Site site;
  inspect::Runs found;
  found.daemons = {DaemonOf(5000)};
  found.daemons[0].older = true;
  found.daemons[0].program = "/opt/vkjobmill.exe (deleted)";
  found.missing = {"sockets: <none>"};
  site.Write(found, inspect::Now());
  EXPECT_THAT(site.Ask("/"),
              AllOf(HasSubstr("it serves with an older program than the one that is installed"),
                    HasSubstr("Not known: sockets: &lt;none&gt;")));
}

TEST(PageTest, EachDaemonIsShownWithItsOwnPorts) {
  Site site;
  inspect::Runs found;
  found.daemons = {DaemonOf(5000), DaemonOf(5001)};
  found.daemons[0].options.comms_ports = 10;
  found.daemons[1].options.comms_ports = 20;
  site.Write(found, inspect::Now());
  EXPECT_TRUE(std::regex_search(
      site.Ask("/"),
      std::regex("<p>Daemon on port 5000: [^;]*; [0-9]+ of 10 comms ports free, [^;]*</p>"
                 "<p>Daemon on port 5001: [^;]*; [0-9]+ of 20 comms ports free, [^;]*</p><h2")));
}

TEST(PageTest, CollectorThatIsSilentIsSaidWithTheTrouble) {
  Site site;
  site.Write({}, inspect::Now() - 1000);
  EXPECT_THAT(site.Ask("/"), HasSubstr("The collector has not been heard since. What follows"));
  std::filesystem::remove(site.file());
  site.board().Refresh();
  EXPECT_THAT(site.Ask("/"), HasSubstr("has not been heard since (" + site.file() + ": No such"));
}

TEST(PageTest, RunsOfWhichLittleIsKnown) {
  Site site;
  const double now = inspect::Now();
  inspect::Runs found;
  inspect::Run unknown = RunOf(1, inspect::RunState::kUnknown, now);
  unknown.since = std::nullopt;
  unknown.unknown = {{"state", "it <changed>"}, {"host", "nobody tells"}, {"root", "x"}};
  inspect::Run listens = RunOf(2, inspect::RunState::kSimulatorListens, now);
  listens.waits_for = "a simulator";
  inspect::Run elsewhere = RunOf(3, inspect::RunState::kSimulator, now);
  inspect::Run here = elsewhere;
  here.id.pid = 4;
  here.simulator = 9;
  inspect::Run ended = RunOf(5, inspect::RunState::kEnded, now);
  ended.cause = "the master shut it down";
  found.runs = {unknown, listens, elsewhere, here, ended};
  site.Write(found, now);
  EXPECT_THAT(site.Ask("/"), AllOf(HasSubstr("it &lt;changed&gt;"),
                                   HasSubstr("its simulator is not seen from this machine"),
                                   HasSubstr("not known before the next look"),
                                   HasSubstr("the master shut it down")));
  EXPECT_THAT(site.Ask("/runs/1"), AllOf(HasSubstr("not known: nobody tells"),
                                         Not(HasSubstr("not known: x")), HasSubstr("neither")));
  EXPECT_THAT(site.Ask("/?state=lost"), HasSubstr("No run fits the filter."));
}

TEST(PageTest, TimesOfOtherFormsAreShownAsTheyAre) {
  Site site;
  const double now = inspect::Now();
  inspect::Runs found;
  found.daemons = {DaemonOf(5000)};
  for (const Json& time : {Json("soon<"), Json("2026-11-22 10:40:19 or so"), Json(7)}) {
    site.Write(found, now);
    site.snapshot()["runs"]["document"]["status"]["daemons"][0]["since"] = time;
    site.Write();
    const std::string shown =
        time.is_string() ? time == "soon<" ? "soon&lt;" : time.get<std::string>() : "–";
    EXPECT_THAT(site.Ask("/"), HasSubstr(" since " + shown + ";"));
  }
}

TEST(TimelineTest, LongRunHasDaysAtItsTimesAndOnlyItsLastStates) {
  Site site;
  const double begin = kNoon;
  for (int i = 0; i < 600; ++i) {
    inspect::Runs found;
    const auto state = i % 2 == 0 ? inspect::RunState::kMaster : inspect::RunState::kSimulator;
    found.runs = {RunOf(1, state, begin + i * 300)};
    site.Write(found, begin + i * 300);
  }
  const std::string page = site.Ask("/runs/1");
  EXPECT_THAT(page, HasSubstr("the last 500"));
  EXPECT_TRUE(std::regex_search(page, std::regex(">[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}</text>")));
  const std::string table = page.substr(page.find("States, the last first"));
  const std::string rows = table.substr(0, table.find("</table>"));
  const std::regex row("<tr><td>");
  EXPECT_EQ(std::distance(std::sregex_iterator(rows.begin(), rows.end(), row), {}), 30);
}

TEST(TimelineTest, OtherSimulatorOrTimeThatStandsStillTellsNoProcessors) {
  const auto status = [](std::optional<pid_t> simulator, std::optional<double> used, double now) {
    inspect::Runs found;
    inspect::Run run = RunOf(1, inspect::RunState::kSimulator, kNoon);
    run.simulator = simulator;
    run.simulator_seconds = used;
    found.runs = {run};
    return JsonOf(found, now);
  };
  const auto processors = [&](std::optional<pid_t> simulator, std::optional<double> used,
                              double now) {
    Timelines timelines;
    timelines.Add(status(17, 5, kNoon), kNoon);
    timelines.Add(status(simulator, used, now), now);
    return timelines.Find("1")->processors();
  };
  EXPECT_EQ(processors(17, 10, kNoon + 5), 1.0);
  EXPECT_FALSE(processors(18, 10, kNoon + 5));
  EXPECT_FALSE(processors(17, std::nullopt, kNoon + 5));
  EXPECT_FALSE(processors(17, 10, kNoon));
}

// Whoever looks whether the port is open would fill the list of those that have ended.
TEST(TimelineTest, HandshakeThatCameToNothingIsForgotten) {
  Timelines timelines;
  inspect::Runs found;
  found.runs = {RunOf(1, inspect::RunState::kHandshake, kNoon),
                RunOf(2, inspect::RunState::kMaster, kNoon)};
  timelines.Add(JsonOf(found, kNoon), kNoon);
  timelines.Add(JsonOf(inspect::Runs(), kNoon + 5), kNoon + 5);
  EXPECT_EQ(timelines.Find("1"), nullptr);
  EXPECT_NE(timelines.Find("2"), nullptr);
}

TEST(TimelineTest, RunThatWasNotSeenHasNone) {
  Timelines timelines;
  inspect::Runs found;
  found.runs = {RunOf(1, inspect::RunState::kMaster, kNoon)};
  const Json status = JsonOf(found, kNoon);
  EXPECT_EQ(timelines.Of(status.at("runs").at(0)), nullptr);
  timelines.Add(status, kNoon);
  EXPECT_NE(timelines.Of(status.at("runs").at(0)), nullptr);
}

TEST(PlotTest, StatesOfOtherNamesAreUnknown) {
  EXPECT_EQ(ColourOf("a state of a later version"), "unknown");
  EXPECT_EQ(ColourOf("unknown"), "unknown");
  const std::string bars =
      Bars({{"later", kNoon, kNoon + 1}, {"lost", kNoon + 1, kNoon + 2}}, kNoon, kNoon + 2);
  EXPECT_THAT(bars, AllOf(HasSubstr("<title>unknown</title>"), HasSubstr("<title>lost</title>"),
                          Not(HasSubstr("later"))));
}

TEST(HtmlTest, EachKindOfCharacterThatCannotBeSeenIsWritten) {
  EXPECT_EQ(Html("\u00ad\u061c\u200b\u2028\u2060\ufeff\ufff9\U000e0001"),
            "\\u{ad}\\u{61c}\\u{200b}\\u{2028}\\u{2060}\\u{feff}\\u{fff9}\\u{e0001}");
  EXPECT_EQ(QueryValue("aZ0-._{~[/"), "aZ0-._%7B%7E%5B%2F");
}

TEST(TargetTest, PercentSignsWithoutTheirDigitsStay) {
  EXPECT_EQ(ReadTarget("/%4g%/%:1%4@%zz%41").path, "/%4g%/%:1%4@%zzA");
}

TEST(FieldsTest, TimesWithMoreAfterThemAreNone) {
  EXPECT_TRUE(TimeIn(Json("2026-11-22T10:40:19+01:00")));
  EXPECT_FALSE(TimeIn(Json("2026-11-22T10:40:19+01:00 x")));
}

TEST(BoardTest, SnapshotsThatCannotBeReadAreSaid) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("snapshot.json");
  Board board(file, {});
  const auto trouble = [&] {
    board.Refresh();
    return board.Answer({"GET", "/", "localhost"}).body;
  };
  ASSERT_EQ(symlink("/etc/passwd", file.c_str()), 0);
  EXPECT_THAT(trouble(), HasSubstr("it is a link"));
  std::filesystem::remove(file);
  directory.Write("snapshot.json", "{\"schema\": 2}");
  EXPECT_THAT(trouble(), HasSubstr("it is of another version"));
  std::filesystem::resize_file(file, (64 << 20) + 1);
  EXPECT_THAT(trouble(), HasSubstr("it is too long"));
}

TEST(ServerTest, AddressOfIPv6StandsInBrackets) {
  EXPECT_EQ(ReadAddress("[::1]:9480").host, "::1");
  for (const char* text : {"[::1:9480", "::1]:9480", "127.0.0.1:123456", "127.0.0.1:70000"}) {
    EXPECT_THROW(ReadAddress(text), Failed) << text;
  }
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("said");
  const ChildProcess server({ProgramDirectory() + "/jobmillctl", "serve", "--listen", "[::1]:0"},
                            options);
  ASSERT_TRUE(Eventually([&] { return directory.Read("said").ends_with("\n"); }));
  if (directory.Read("said").find("Address family not supported") != std::string::npos ||
      directory.Read("said").find("Cannot assign requested address") != std::string::npos) {
    GTEST_SKIP() << "no IPv6 here";
  }
  EXPECT_THAT(directory.Read("said"),
              testing::MatchesRegex("Serving on http://\\[::1\\]:[1-9][0-9]*/\n"));
}

}  // namespace
}  // namespace jobmillctl::serve
