// Connections to the daemon that are used as TCP allows, but masters do not.

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/running_daemon.h"
#include "tests/support/sanitized.h"
#include "tests/support/scripted_simulator.h"
#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"
#include "tests/system/serve.h"

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

// Everything that a master says up to the debug flag.
std::string RunRequest(const std::string& path = "PATH") {
  std::string bytes = Frame("3");
  for (const std::string& field : {std::string("0"), path, std::string("CASE"), std::string("1"),
                                   std::string("20172"), std::string("alice"), std::string("0")}) {
    bytes += Frame(field);
  }
  return bytes;
}

double ProcessorSeconds(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
  double nanoseconds = 0;
  file >> nanoseconds;
  return nanoseconds / 1e9;
}

// The connection child of the only connection.
pid_t OnlyChild(const RunningDaemon& daemon) {
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).size() == 1; }));
  const std::vector<pid_t> children = ChildrenOf(daemon.pid());
  return children.empty() ? -1 : children[0];
}

bool IsQuiet(const RunningDaemon& daemon) {
  return Eventually([&] { return ChildrenOf(daemon.pid()).empty(); });
}

TEST(LinkHazardTest, RunInSegmentsOfOneByteWithPausesIsServed) {
  const RunningDaemon daemon(Unprivileged());
  TestMaster master(daemon.port());
  const int on = 1;
  setsockopt(master.descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  const auto trickle = [&master](const std::string& bytes) {
    for (const char byte : bytes) {
      WriteAll(master.descriptor(), std::string(1, byte));
      // Only when this one has arrived the next is sent, a little later.
      EXPECT_TRUE(Eventually([&] {
        int underway = 1;
        return ioctl(master.descriptor(), SIOCOUTQ, &underway) == 0 && underway == 0;
      }));
      std::this_thread::sleep_for(milliseconds(1));
    }
  };
  EXPECT_EQ(master.Receive(), "3");
  trickle(RunRequest());
  EXPECT_EQ(Text(master.Receive()), "OK|port-9001");
  trickle(Bytes("04 00 00 00 f0 ff 00 00"));
  EXPECT_EQ(Hex(master.Receive()), kShutDown);
}

TEST(LinkHazardTest, HandshakeInOneSegmentIsServed) {
  const RunningDaemon daemon(Unprivileged());
  TestMaster master(daemon.port());
  WriteAll(master.descriptor(), RunRequest() + Frame(Bytes("f0 ff 00 00")));
  EXPECT_EQ(master.Receive(), "3");
  EXPECT_EQ(Text(master.Receive()), "OK|port-9001");
  EXPECT_EQ(Hex(master.Receive()), kShutDown);
}

// A run with a simulator whose answers the test has prepared.
class SimulatedRunTest : public testing::Test {
 protected:
  static std::string End() { return wire::Mess("END"); }

  void Start(const std::string& script) {
    simulator_.AnswerNext({wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + End(),
                           wire::Mess("STEP") + wire::Cstr("POSITION", {"MODEL_DEFINITION"}) +
                               wire::Doub("TIME", {1.5}) +
                               wire::Inte("DATE", {2026, 1, 31, 0, 0, 0}) + End()});
    RunningDaemon::Options options;
    options.arguments = {"-u", "-t", "5", "-o", std::to_string(simulator_.Port())};
    options.script = script;
    daemon_ = std::make_unique<RunningDaemon>(options);
    master_ = std::make_unique<TestMaster>(daemon_->port());
    master_->RequestRun({});
    EXPECT_THAT(master_->Receive(), HasSubstr("OK|127.0.0.1"));
  }

  ScriptedSimulator simulator_{ScriptedSimulator::Link::kLoopback};
  std::unique_ptr<RunningDaemon> daemon_;
  std::unique_ptr<TestMaster> master_;
};

TEST_F(SimulatedRunTest, FiveRequestsInOneSegmentAreAnsweredInTheirOrder) {
  Start("#!/bin/sh\necho HOST=127.0.0.1\n");
  simulator_.AnswerNext({wire::Mess("FINISHED") + End()});
  std::string segment;
  for (const char* code :
       {"01 00 00 00", "02 00 00 00", "04 00 00 00", "09 00 00 00", "f0 ff 00 00"}) {
    segment += Frame(Bytes(code));
  }
  WriteAll(master_->descriptor(), segment);
  EXPECT_EQ(Hex(master_->Receive()), "01 00 00 00 00 00 00 00");
  EXPECT_EQ(Hex(master_->Receive()), "02 00 00 00 1f 00 00 00 01 00 00 00 ea 07 00 00 00 00 00 00");
  EXPECT_EQ(Hex(master_->Receive()), "04 00 00 00 00 00 00 00 00 00 f8 3f 00 00 00 00");
  EXPECT_EQ(Hex(master_->Receive()), "09 00 00 00 00 00 00 00 00 00 00 00");
  EXPECT_EQ(Hex(master_->Receive()), kShutDown);
}

TEST_F(SimulatedRunTest, ReplyThatWaitsForItsReaderIsWholeAlthoughTheScriptEndsMeanwhile) {
  // The script lives until its file is there.
  Start("#!/bin/sh\necho HOST=127.0.0.1\nwhile [ ! -e go ]; do sleep 0.02; done\n");
  ASSERT_EQ(master_->Ask("01 00 00 00"), "01 00 00 00 00 00 00 00");
  std::string type;
  type.append(12'000'000, 't');  // above what the buffers on the way hold
  simulator_.AnswerNext({wire::Mess("REPLY") + wire::Cstr("QITEMS", {"TYPE", "STATUS"}) +
                             wire::Cstr("WELLNAME", {"P1"}) + wire::Cstr("VALUES", {type, "OPEN"}) +
                             End(),
                         wire::Mess("READY") + End()});
  master_->Send(Bytes("06 00 00 00"));
  const pid_t controller = OnlyChild(*daemon_);
  const auto is_sending = [&] {
    std::ifstream file("/proc/" + std::to_string(controller) + "/syscall");
    long call = -1;
    return file >> call && call == SYS_sendto;
  };
  ASSERT_TRUE(Eventually(is_sending));
  const std::vector<pid_t> scripts = ChildrenOf(controller);
  ASSERT_EQ(scripts.size(), 1U);
  static_cast<void>(daemon_->directory().Write("go", ""));
  ASSERT_TRUE(Eventually([&] { return !IsRunning(scripts[0]); }));
  const std::string head =
      Bytes("06 00 00 00 01 00 00 00 02 00 00 00") + "P1" + Bytes("00 1b b7 00");
  const std::string tail = Bytes("04 00 00 00") + "OPEN" + Bytes("00 00 00 00");
  const std::string frame = Frame(head + type + tail);
  ASSERT_TRUE(ReadExactly(master_->descriptor(), frame.size()) == frame);
  // The next request is served as well, and the script is reaped after all.
  EXPECT_EQ(master_->Ask("04 00 00 00"), "04 00 00 00 00 00 00 00 00 00 f8 3f 00 00 00 00");
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(controller).empty(); }));
}

TEST(LinkHazardTest, MasterThatHasFinishedSendingStillGetsItsAnswers) {
  const RunningDaemon daemon(Unprivileged());
  TestMaster master(daemon.port());
  WriteAll(master.descriptor(), RunRequest() + Frame(Bytes("f0 ff 00 00")));
  shutdown(master.descriptor(), SHUT_WR);
  EXPECT_EQ(master.Receive(), "3");
  EXPECT_EQ(Text(master.Receive()), "OK|port-9001");
  EXPECT_EQ(Hex(master.Receive()), kShutDown);
  EXPECT_TRUE(IsQuiet(daemon));
}

TEST(LinkHazardTest, MasterThatFinishesSendingBetweenRequestsEndsItsRun) {
  const RunningDaemon daemon(Unprivileged({"-l"}));
  TestMaster master(daemon.port());
  master.RequestRun({"0", daemon.directory().path().string() + "/"});
  EXPECT_EQ(Text(master.Receive()), "OK|port-9001");
  shutdown(master.descriptor(), SHUT_WR);
  EXPECT_TRUE(master.SeesEndWithin(5));
  EXPECT_TRUE(IsQuiet(daemon));
  EXPECT_THAT(
      daemon.directory().Read("CASE.crvnlog"),
      HasSubstr("Request process loop failed: No or unexpected data received from Corvane"));
}

TEST(LinkHazardTest, MasterThatFinishesSendingInMidFrameIsWaitedForWithoutSpinning) {
  const RunningDaemon daemon(Unprivileged());
  TestMaster master(daemon.port());
  master.RequestRun({});
  EXPECT_EQ(Text(master.Receive()), "OK|port-9001");
  const pid_t controller = OnlyChild(daemon);
  WriteAll(master.descriptor(), Bytes("08 00 00 00 01 00"));
  shutdown(master.descriptor(), SHUT_WR);
  const double before = ProcessorSeconds(controller);
  EXPECT_FALSE(master.SeesEndWithin(1));
  EXPECT_LT(ProcessorSeconds(controller) - before, 0.2);
  EXPECT_EQ(ServeOne(daemon), "OK|port-9002");
  const linger reset{1, 0};  // the close then breaks the connection
  setsockopt(master.descriptor(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  master.Leave();
  EXPECT_TRUE(IsQuiet(daemon));
}

TEST(LinkHazardTest, LargestLengthWithHundredMebibytesAfterItCostsNeitherMemoryNorTime) {
  const RunningDaemon daemon(Unprivileged());
  TestMaster stranger(daemon.port());
  EXPECT_EQ(stranger.Receive(), "3");
  const pid_t child = OnlyChild(daemon);
  const long memory = StatusValue(child, "VmRSS");
  const double before = ProcessorSeconds(child);
  const std::string piece(1 << 20, 'z');
  WriteAll(stranger.descriptor(), Bytes("ff ff ff 7f"));
  for (int i = 0; i < 100; ++i) {
    WriteAll(stranger.descriptor(), piece);
    if (i == 50) {
      EXPECT_EQ(ServeOne(daemon), "OK|port-9002");
    }
  }
  EXPECT_TRUE(Eventually([&] {
    int underway = 1;
    return ioctl(stranger.descriptor(), SIOCOUTQ, &underway) == 0 && underway == 0;
  }));
  EXPECT_LT(StatusValue(child, "VmHWM") - memory, 4 * 1024);
  EXPECT_LT(ProcessorSeconds(child) - before, 2);
  EXPECT_FALSE(stranger.SeesEndWithin(0));
  stranger.Leave();
  EXPECT_TRUE(IsQuiet(daemon));
}

// A connection that has been begun, and whether it is there within `limit`.
bool IsAccepted(const Descriptor& connection, milliseconds limit) {
  pollfd writable{connection.get(), POLLOUT, 0};
  int error = 0;
  socklen_t size = sizeof(error);
  return poll(&writable, 1, static_cast<int>(limit.count())) == 1 &&
         getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

Descriptor Begin(int port) {
  Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
          0 &&
      errno != EINPROGRESS) {
    connection.Reset();
  }
  return connection;
}

TEST(LinkHazardTest, FiveHundredMastersCanWaitWhileTheDaemonIsHeldUp) {
  std::ifstream setting("/proc/sys/net/core/somaxconn");
  int most = 0;
  setting >> most;
  if (most < 500) GTEST_SKIP() << "the system's own limit is " << most;
  RunningDaemon daemon(Unprivileged());
  daemon.process().Signal(SIGSTOP);
  ASSERT_TRUE(Eventually([&] {
    std::ifstream file("/proc/" + std::to_string(daemon.pid()) + "/stat");
    std::string text;
    std::getline(file, text);
    return text[text.rfind(") ") + 2] == 'T';
  }));
  std::vector<Descriptor> masters;
  // The system queues one more than it was asked for.
  for (int i = 0; i < 501; ++i) {
    masters.push_back(Begin(daemon.port()));
    ASSERT_TRUE(IsAccepted(masters.back(), std::chrono::seconds(2))) << i;
  }
  const Descriptor too_much = Begin(daemon.port());
  EXPECT_FALSE(IsAccepted(too_much, milliseconds(300)));
  daemon.process().Signal(SIGKILL);  // rather than to have it serve them all
  daemon.process().Wait(std::chrono::seconds(5));
}

TEST(LinkHazardTest, DaemonKeepsNoRecordOfPastConnections) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer keeps what was freed";
  // The script's name is part of each record; with this one a record that stays is 3 KB.
  RunningDaemon::Options options;
  std::string script = "/bin";
  while (script.size() < 3000) script += "/.";
  options.arguments = {"-u", "-s", script + "/true"};
  const RunningDaemon daemon(options);
  const auto call = [&daemon](int times) {
    for (int i = 0; i < times; ++i) {
      TestMaster master(daemon.port());
      EXPECT_EQ(master.Receive(), "3");
    }
    EXPECT_TRUE(IsQuiet(daemon));
    return StatusValue(daemon.pid(), "RssAnon");
  };
  const long before = call(50);
  EXPECT_LT(call(500) - before, 400);  // KiB; with the records 1,500 more
}

}  // namespace
