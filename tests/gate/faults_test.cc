// Lets the system calls of either gate fail, one at a time, while a link is begun, used, broken and
// resumed: a failure costs at most the link in which it happened, and nobody waits for ever. A
// sample; with JOBMILL_FULL_SIZE set, every call.

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/gate/breaking_relay.h"
#include "tests/gate/door.h"
#include "tests/gate/echo_daemon.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/sanitized.h"
#include "tests/support/temporary_directory.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const bool kFullSize = std::getenv("JOBMILL_FULL_SIZE") != nullptr;

struct Fault {
  std::string call;
  int occurrence = 0;
  std::string error;
};

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
  return out << fault.call << ':' << fault.error << ':' << fault.occurrence;
}

// How a call may fail without the program having done anything wrong. ECONNABORTED is not among the
// errors of accept(): strace would leave the connection waiting, which the kernel has then dropped.
std::vector<std::string> ErrorsOf(const std::string& call) {
  static const std::map<std::string, std::vector<std::string>> errors = {
      {"accept4", {"EMFILE", "ENFILE"}},
      {"accept", {"EMFILE", "ENFILE"}},
      {"socket", {"EMFILE", "ENOBUFS"}},
      {"connect", {"EADDRNOTAVAIL", "ENETUNREACH"}},
      {"read", {"ECONNRESET", "EINTR"}},
      {"recvmsg", {"ECONNRESET", "ENOMEM"}},
      {"recvfrom", {"ECONNRESET", "ENOMEM"}},
      {"write", {"EPIPE", "EINTR"}},
      {"sendmsg", {"EPIPE", "ENOBUFS"}},
      {"sendto", {"EPIPE", "ENOBUFS"}},
      {"epoll_ctl", {"ENOMEM", "ENOSPC"}},
      {"epoll_wait", {"EINTR"}},
      {"openat", {"EMFILE", "EACCES"}},
      {"mmap", {"ENOMEM"}},
      {"brk", {"ENOMEM"}},
      {"setsockopt", {"ENOBUFS"}},
      {"getsockopt", {"ENOBUFS"}},
      {"shutdown", {"ENOTCONN"}},
      {"getpeername", {"ENOTCONN"}},
      {"getsockname", {"ENOBUFS"}},
  };
  const auto found = errors.find(call);
  return found == errors.end() ? std::vector<std::string>() : found->second;
}

// strace on a process that runs, until this object goes.
class Traced {
 public:
  // Throws when the process cannot be traced.
  Traced(pid_t pid, const std::vector<std::string>& options) {
    std::vector<std::string> arguments = {"/usr/bin/strace",   "-f", "-p",
                                          std::to_string(pid), "-o", File()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ChildProcess::Options streams;
    streams.error_file = directory_.File("errors");
    strace_ = std::make_unique<ChildProcess>(arguments, streams);
    const auto attached = [this] {
      return directory_.Read("errors").find("attached") != std::string::npos;
    };
    if (!Eventually(attached)) throw std::runtime_error(directory_.Read("errors"));
  }

  // Lets go of the process; what was noted.
  std::string Release() {
    strace_->Signal(SIGINT);
    strace_->Wait(seconds(10));
    return directory_.Read("calls");
  }

 private:
  std::string File() const { return directory_.File("calls"); }

  TemporaryDirectory directory_;
  std::unique_ptr<ChildProcess> strace_;
};

class GateFaultsTest : public testing::TestWithParam<bool> {
 protected:
  GateFaultsTest() { Build(); }

  void Build() {
    gate_.reset();
    relay_.reset();
    // Gates that ask soon, so that a connection of which one end knows nothing does not last.
    door_ = std::make_unique<Door>(daemon_.port(), Door::Words{"--silence=2"});
    relay_ = std::make_unique<BreakingRelay>(door_->serving().port());
    gate_ =
        door_->Connect(door_->alice(), {"--silence=2", "--longest-pause=0.05", "--attempt-wait=2"},
                       relay_->port());
  }

  pid_t Pid() const { return GetParam() ? door_->serving().pid() : gate_->pid(); }

  // What a master has of a link that is cut once: all that it should, or why not.
  std::string Session() const {
    const Descriptor link = ConnectToLoopback(gate_->port());
    const timeval patience{15, 0};
    setsockopt(link.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    const std::string handshake = Handshake();
    const std::string bytes(20'000, 'x');
    WriteAll(link.get(), handshake);
    std::string verdict = Expect(link, Frame("3") + handshake);
    if (verdict.empty()) {
      WriteAll(link.get(), bytes);
      verdict = Expect(link, bytes);
    }
    relay_->Cut();
    if (verdict.empty()) {
      WriteAll(link.get(), bytes);
      verdict = Expect(link, bytes);
    }
    shutdown(link.get(), SHUT_WR);
    if (verdict.empty() && !ReadExactly(link.get(), 1).empty()) verdict = "more than was said";
    return verdict;
  }

  static std::string Expect(const Descriptor& link, const std::string& expected) {
    const auto begun = std::chrono::steady_clock::now();
    const std::string got = ReadExactly(link.get(), expected.size());
    if (got == expected) return "";
    if (std::chrono::steady_clock::now() - begun > seconds(14)) return "it waits for ever";
    for (const char* refusal : {"vkgate: ", "This gate serves its own user's masters alone: "}) {
      if (got.find(refusal) != std::string::npos) return "refused";
    }
    return got == expected.substr(0, got.size()) ? "ended" : "other bytes than were said";
  }

  // All calls of a session with the errors that they may have.
  std::vector<Fault> Faults() const {
    Traced traced(Pid(), {});
    EXPECT_EQ(Session(), "");
    std::istringstream calls(traced.Release());
    std::map<std::string, int> count;
    for (std::string line; std::getline(calls, line);) {
      const std::size_t begin = line.find_first_not_of(" 0123456789");
      const std::size_t end = line.find('(');
      if (begin == std::string::npos || end == std::string::npos || end < begin) continue;
      ++count[line.substr(begin, end - begin)];
    }
    std::vector<Fault> faults;
    for (const auto& [call, times] : count) {
      for (const std::string& error : ErrorsOf(call)) {
        for (int i = 1; i <= times; ++i) faults.push_back({call, i, error});
      }
    }
    return faults;
  }

  // What went wrong besides the link in which the call failed.
  std::string Try(const Fault& fault) {
    Traced traced(Pid(), {"-e", "trace=" + fault.call, "-e",
                          "inject=" + fault.call + ":error=" + fault.error +
                              ":when=" + std::to_string(fault.occurrence)});
    std::string verdict = Session();
    traced.Release();
    if (!verdict.empty() && verdict != "ended" && verdict != "refused") return verdict;
    if (!IsRunning(door_->serving().pid())) return "the serving gate has ended";
    if (!IsRunning(gate_->pid())) return "the connecting gate has ended";
    verdict = Session();
    return verdict.empty() ? "" : "the next master: " + verdict;
  }

  EchoDaemon daemon_;
  std::unique_ptr<Door> door_;
  std::unique_ptr<BreakingRelay> relay_;
  std::unique_ptr<RunningGate> gate_;
};

TEST_P(GateFaultsTest, FailedCallCostsAtMostItsLink) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer's own calls would fail, too";
  std::vector<Fault> faults;
  try {
    faults = Faults();
  } catch (const std::exception& error) {
    GTEST_SKIP() << "strace cannot trace here: " << error.what();
  }
  ASSERT_GT(faults.size(), 50U);
  const unsigned seed = std::random_device()();
  if (!kFullSize) {
    std::shuffle(faults.begin(), faults.end(), std::mt19937(seed));
    faults.resize(15);
  }
  std::cout << faults.size() << " faults, seed " << seed << "\n";
  for (const Fault& fault : faults) {
    const std::string wrong = Try(fault);
    if (wrong.empty()) continue;
    ADD_FAILURE() << fault << ": " << wrong;
    Build();
  }
}

INSTANTIATE_TEST_SUITE_P(, GateFaultsTest, testing::Bool(), [](const auto& serving) {
  return serving.param ? "Serving" : "Connecting";
});

}  // namespace
