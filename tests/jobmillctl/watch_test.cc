// What is shown again and again.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/descriptor.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"

namespace {

TEST(WatchTest, EachChangeIsALineWhereThereIsNoTerminal) {
  RunsSite site;
  site.Connect("CASE");
  site.Request("QUEUED");
  ASSERT_TRUE(site.WaitForState("QUEUED", "waiting for the script"));
  const std::string id = site.Run("CASE").at("id").dump();
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  ChildProcess watch({ProgramDirectory() + "/jobmillctl", "status", "--watch", id}, options);
  const auto has = [&](const std::string& text) {
    return directory.Read("out").find(text) != std::string::npos;
  };
  EXPECT_TRUE(Eventually([&] { return has("/CASE): waiting for the master\n"); }));
  EXPECT_EQ(Jobmillctl({"end", "--yes", id}).status, 0);
  EXPECT_EQ(watch.Wait(std::chrono::seconds(20)), 0);
  EXPECT_TRUE(has("/CASE): ended: It ended without a word after the request 'connect': "));
  EXPECT_FALSE(has("QUEUED")) << "another run";
}

// A terminal with jobmillctl in it.
class Terminal {
 public:
  // With further arguments. A terminal that does not know its size says 0. `in_child` prepares what
  // becomes jobmillctl.
  explicit Terminal(
      std::vector<std::string> arguments = {}, unsigned short rows = 30,
      void (*in_child)() = [] {}) {
    winsize size{};
    size.ws_row = rows;
    size.ws_col = rows == 0 ? 0 : 120;
    int master = -1;
    pid_ = forkpty(&master, nullptr, nullptr, &size);
    if (pid_ == 0) {
      in_child();
      arguments.insert(arguments.begin(),
                       {ProgramDirectory() + "/jobmillctl", "status", "--watch"});
      std::vector<char*> words;
      words.reserve(arguments.size() + 1);
      for (std::string& argument : arguments) words.push_back(argument.data());
      words.push_back(nullptr);
      execv(words[0], words.data());
      _exit(127);
    }
    master_ = Descriptor(master);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() {
    if (pid_ < 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  void Interrupt() const { kill(pid_, SIGINT); }

  // The window is closed. The exit status of jobmillctl; -1 when it goes on or a signal ended it.
  int Close() {
    master_.Reset();
    int status = -1;
    if (Eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) pid_ = -1;
    return pid_ == -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // From now on the key Enter is sent as it is, a carriage return.
  void TranslateNothing() const {
    termios mode{};
    tcgetattr(master_.get(), &mode);
    mode.c_iflag &= ~static_cast<tcflag_t>(ICRNL);
    EXPECT_EQ(tcsetattr(master_.get(), TCSANOW, &mode), 0);
  }

  void Press(const std::string& keys) const {
    EXPECT_EQ(write(master_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Waits until `text` is shown since the last call.
  bool Shows(const std::string& text) {
    const bool shown = Eventually([&] {
      pollfd readable{master_.get(), POLLIN, 0};
      std::array<char, 4096> part{};
      while (poll(&readable, 1, 0) == 1) {
        const ssize_t size = read(master_.get(), part.data(), part.size());
        if (size <= 0) break;
        shown_.append(part.data(), static_cast<std::size_t>(size));
      }
      return shown_.find(text) != std::string::npos;
    });
    EXPECT_TRUE(shown) << text;
    before_ = shown_.substr(0, shown_.find(text));
    if (shown) shown_.erase(0, shown_.find(text) + text.size());
    return shown;
  }

  // What stood before the last text that was waited for.
  const std::string& Before() const { return before_; }

 private:
  Descriptor master_;
  pid_t pid_ = -1;
  std::string shown_;
  std::string before_;
};

TEST(WatchTest, KeysSortFilterOpenAndEnd) {
  RunsSite site;
  site.Connect("CASE");
  site.Greet();
  const std::string id = site.Run("CASE").at("id").dump();
  Terminal terminal;
  EXPECT_TRUE(terminal.Shows("\x1b[?1049h"));
  EXPECT_TRUE(terminal.Shows("sort (by port and start)"));
  terminal.Press("s");
  EXPECT_TRUE(terminal.Shows("sort (by state)"));
  terminal.Press("/");
  EXPECT_TRUE(terminal.Shows("Filter: _"));
  terminal.Press(site.data().path().string() + "/CASE\r");
  EXPECT_TRUE(terminal.Shows("/CASE)"));
  EXPECT_TRUE(terminal.Shows(">" + id + " "));
  terminal.Press("\r");
  EXPECT_TRUE(terminal.Shows("root                   CASE"));
  terminal.Press("q");
  EXPECT_TRUE(terminal.Shows("sort (by state)"));
  terminal.Press("q");
  EXPECT_TRUE(terminal.Shows("\x1b[?25h\x1b[?1049l"));  // the terminal is as it was
}

TEST(WatchTest, FurtherKeysChooseFilterAndSort) {
  RunsSite site;
  site.Connect("CASE");
  site.Request("QUEUED");
  ASSERT_TRUE(site.WaitForState("QUEUED", "waiting for the script"));
  const std::string first = site.Run("CASE").at("id").dump();
  const std::string second = site.Run("QUEUED").at("id").dump();
  Terminal terminal;
  for (const char* order : {"state", "account", "time in state", "port and start"}) {
    terminal.Press("s");
    EXPECT_TRUE(terminal.Shows(std::string("sort (by ") + order + ")"));
  }
  terminal.Press("/" + site.data().path().string() + "xy\x01\x7f");
  EXPECT_TRUE(terminal.Shows("Filter: " + site.data().path().string() + "x_"));
  terminal.Press("\x7f\n");
  EXPECT_TRUE(terminal.Shows("/: filter (" + site.data().path().string() + ")"));
  EXPECT_TRUE(terminal.Shows(">" + first + " "));
  terminal.Press("kjz");
  EXPECT_TRUE(terminal.Shows(">" + second + " "));
  terminal.Press("k");
  EXPECT_TRUE(terminal.Shows(">" + first + " "));
  // No run has that name.
  terminal.Press(
      "/\x7f"
      "no run has this name\r");
  EXPECT_TRUE(terminal.Shows("filter (no run has this name)"));
  terminal.Press("\r");
  EXPECT_TRUE(terminal.Shows("filter (no run has this name)"));
  terminal.Press("q");
  EXPECT_TRUE(terminal.Shows("\x1b[?25h\x1b[?1049l"));
}

TEST(WatchTest, NameThatACertificateHasProvenIsShownToo) {
  RunsSite site;
  site.Connect("CASE");
  const auto run = site.Run("CASE");
  const auto master = run.at("master").get<std::string>();
  const TemporaryDirectory gates;
  const nlohmann::json link = {{"daemon_port", std::stoi(master.substr(master.rfind(':') + 1))},
                               {"peer", "192.0.2.1:40000"},
                               {"proof", "upn:alice@example.com"},
                               {"claimed", "alice"},
                               {"broken_seconds", nullptr}};
  const nlohmann::json said = {
      {"schema", 1},
      {"running", true},
      {"time", time(nullptr)},
      {"daemon", "127.0.0.1:" + std::to_string(site.daemon().port())},
      {"links", nlohmann::json::array({link})},
      {"counts", nlohmann::json::object()},
      {"arriving", 0},
      {"most_links", 10},
      {"revocation_lists", nlohmann::json::array()},
  };
  gates.Write("gate.json", said.dump());
  Terminal terminal({"--gates", gates.path().string(), run.at("id").dump()});
  EXPECT_TRUE(terminal.Shows("proven_name            upn:alice@example.com"));
}

TEST(WatchTest, RunThatEndsWhileItIsShownSaysHow) {
  RunsSite site;
  site.Connect("CASE");
  const std::string id = site.Run("CASE").at("id").dump();
  Terminal terminal({id}, 0);
  EXPECT_TRUE(terminal.Shows("root                   CASE"));
  EXPECT_EQ(Jobmillctl({"end", "--yes", id}).status, 0);
  EXPECT_TRUE(terminal.Shows("The run has ended: "));
  terminal.Press("x");
  EXPECT_TRUE(terminal.Shows("The run has ended: "));
  terminal.Interrupt();
  EXPECT_TRUE(terminal.Shows("\x1b[?25h\x1b[?1049l"));
}

// No log that can be read tells of it.
TEST(WatchTest, RunWhoseEndNobodyTellsHasJustEnded) {
  RunsSite site;
  site.Connect("CASE");
  const std::string id = site.Run("CASE").at("id").dump();
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  ChildProcess lines({ProgramDirectory() + "/jobmillctl", "status", "--watch", id}, options);
  Terminal terminal({id});
  EXPECT_TRUE(terminal.Shows("root                   CASE"));
  EXPECT_TRUE(Eventually([&] { return directory.Read("out").ends_with("for the master\n"); }));
  std::filesystem::remove(site.daemon().LogFile());
  EXPECT_EQ(Jobmillctl({"end", "--yes", id}).status, 0);
  EXPECT_TRUE(terminal.Shows("The run has ended\x1b[K"));
  EXPECT_EQ(lines.Wait(std::chrono::seconds(20)), 0);
  EXPECT_TRUE(directory.Read("out").ends_with("/CASE): ended\n")) << directory.Read("out");
}

// Also where the program was started so that it outlives its terminal.
TEST(WatchTest, TerminalThatGoesEndsIt) {
  RunsSite site;
  site.Connect("CASE");
  const std::string id = site.Run("CASE").at("id").dump();
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {id}}) {
    Terminal terminal(arguments, 30, [] { signal(SIGHUP, SIG_IGN); });
    EXPECT_TRUE(terminal.Shows("\x1b[?1049h"));
    EXPECT_TRUE(terminal.Shows("CASE"));
    EXPECT_NE(terminal.Close(), -1);
  }
}

TEST(WatchTest, EnterMayComeAsACarriageReturn) {
  RunsSite site;
  site.Connect("CASE");
  Terminal terminal;
  EXPECT_TRUE(terminal.Shows("sort (by port and start)"));
  terminal.TranslateNothing();
  terminal.Press("/" + site.data().path().string() + "\r");
  EXPECT_TRUE(terminal.Shows("/: filter (" + site.data().path().string() + ")"));
  terminal.Press("\r");
  EXPECT_TRUE(terminal.Shows("root                   CASE"));
}

TEST(WatchTest, TerminalWithoutAKeyboardGetsLines) {
  RunsSite site;
  site.Connect("CASE");
  Terminal terminal({site.Run("CASE").at("id").dump()}, 30, [] {
    const Descriptor nothing(open("/dev/null", O_RDONLY));
    dup2(nothing.get(), STDIN_FILENO);
  });
  EXPECT_TRUE(terminal.Shows("/CASE): waiting for the master\r\n"));
  EXPECT_EQ(terminal.Before().find('\x1b'), std::string::npos);
}

TEST(WatchTest, LinesThatCannotBeWrittenEndIt) {
  RunsSite site;
  site.Connect("CASE");
  ChildProcess::Options options;
  options.output_file = "/dev/full";
  ChildProcess watch({ProgramDirectory() + "/jobmillctl", "status", "--watch"}, options);
  EXPECT_EQ(watch.Wait(std::chrono::seconds(20)), 0);
}

TEST(WatchTest, AllRunsAreWatchedUntilASignal) {
  RunsSite site;
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  ChildProcess watch({ProgramDirectory() + "/jobmillctl", "status", "--watch"}, options);
  const std::string data = site.data().path().string();
  const auto has = [&](const std::string& text) {
    return directory.Read("out").find(text) != std::string::npos;
  };
  site.Request("QUEUED");
  site.Connect("CASE");
  EXPECT_TRUE(Eventually([&] { return has(data + "/CASE): waiting for the master\n"); }));
  EXPECT_EQ(Jobmillctl({"end", "--yes", site.Run("CASE").at("id").dump()}).status, 0);
  EXPECT_TRUE(Eventually([&] { return has(data + "/CASE): ended"); }));
  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Wait(std::chrono::seconds(20)), 0);
  // What does not change is said once.
  const std::string lines = directory.Read("out");
  const std::string queued = data + "/QUEUED): waiting for the script";
  EXPECT_NE(lines.find(queued), std::string::npos);
  EXPECT_EQ(lines.find(queued), lines.rfind(queued));
}

}  // namespace
