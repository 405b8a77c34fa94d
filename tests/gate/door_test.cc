// Both gates as programs, between masters and the real daemon.

#include "tests/gate/door.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gate/opening.h"
#include "tests/gate/breaking_relay.h"
#include "tests/gate/daemon_model.h"
#include "tests/gate/raw_gate.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/full_listener.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"
#include "tests/system/serve.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::vector<std::string> Claiming(const std::string& user) {
  return {"0", "PATH", "CASE", "1", "20172", user, "0"};
}

// What a master gets for its request at this port.
std::string AnswerTo(int port, const std::string& user) {
  TestMaster master(port);
  master.RequestRun(Claiming(user));
  return Text(master.Receive());
}

class DoorTest : public testing::Test {
 protected:
  RunningDaemon daemon_{Unprivileged()};
  Door door_{daemon_.port()};
};

TEST_F(DoorTest, ProvenUserPassesToTheDaemon) {
  const auto gate = door_.Connect(door_.alice());
  TestMaster master(gate->port());
  master.RequestRun(Claiming("alice"));
  EXPECT_THAT(Text(master.Receive()), StartsWith("OK|port-"));
  EXPECT_EQ(master.Ask("f0 ff 00 00"), kShutDown);
  EXPECT_TRUE(master.SeesEndWithin(5));
  master.Leave();
  const auto admitted = door_.serving().Await("admitted");
  EXPECT_EQ(admitted["claimed"], "alice");
  EXPECT_EQ(admitted["proof"], "upn:alice@example.com");
  const auto ended = door_.serving().Await("ended");
  EXPECT_EQ(ended["verdict"], "admitted");
  EXPECT_EQ(ended["how"], "both ends have finished");
  EXPECT_EQ(gate->Await("ended")["how"], "both ends have finished");
  EXPECT_TRUE(daemon_.WaitForLog("Windows user received: alice"));
}

TEST_F(DoorTest, StolenNameIsRefusedInTheMastersProtocolAndReachesNobody) {
  const auto gate = door_.Connect(door_.alice());
  TestMaster master(gate->port());
  master.RequestRun(Claiming("bob"));
  EXPECT_EQ(master.Receive(),
            "Windows user 'bob' is not proven by the certificate, which is that of "
            "upn:alice@example.com");
  EXPECT_TRUE(master.SeesEndWithin(5));
  master.Leave();
  const auto denied = door_.serving().Await("denied");
  EXPECT_EQ(denied["claimed"], "bob");
  EXPECT_THAT(denied["names"], ElementsAre("upn:alice@example.com"));
  EXPECT_EQ(door_.serving().Await("ended")["verdict"], "denied");
  EXPECT_TRUE(daemon_.WaitForLog("Incorrect response from Corvane"));
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("bob")));
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("Path: ")));
}

// What comes until the end.
std::string Rest(const Descriptor& link, int patience = 10'000) {
  return ReadExactly(link.get(), 1 << 20, patience);
}

// What it says goes nowhere, and does not stop either.
TEST_F(DoorTest, RefusedMasterMayTalkOn) {
  const auto gate = door_.Connect(door_.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  const timeval patience{10, 0};
  setsockopt(link.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  ASSERT_TRUE(WriteAll(link.get(), Handshake("bob")));
  EXPECT_THAT(Rest(link), HasSubstr("'bob' is not proven"));
  EXPECT_TRUE(WriteAll(link.get(), std::string(20 << 20, 'x')));  // more than two windows
  shutdown(link.get(), SHUT_WR);
  const auto ended = door_.serving().Await("ended");
  EXPECT_EQ(ended["verdict"], "denied");
  EXPECT_EQ(ended["how"], "both ends have finished");
  EXPECT_GT(ended["bytes_to_daemon"], 20 << 20);
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("Path: ")));
}

// What the connecting gate would say stands for the daemon's greeting, which such a master awaits.
TEST(DaemonThatEndsTest, MasterThatWasLetInAndHasGotNothingIsToldNothing) {
  const Descriptor silent = BindFreePort(1);
  Door door(PortOf(silent.get()));
  const auto gate = door.Connect(door.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  gate->Await("begun");
  kill(door.serving().pid(), SIGTERM);
  EXPECT_EQ(Rest(link), "");
  EXPECT_EQ(gate->Await("ended")["how"], "an administrator has ended it");
}

// Then nothing can be said any more: the end has been passed on.
TEST(DaemonThatEndsTest, ClaimAfterTheDaemonsEndIsJudgedAllTheSame) {
  const Descriptor listener = BindFreePort(1);
  Door door(PortOf(listener.get()));
  const auto gate = door.Connect(door.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  const Descriptor daemon(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  WriteAll(daemon.get(), Frame("3"));
  shutdown(daemon.get(), SHUT_WR);
  EXPECT_EQ(Rest(link), Frame("3"));
  WriteAll(link.get(), Handshake("bob"));
  EXPECT_EQ(door.serving().Await("denied")["claimed"], "bob");
  EXPECT_EQ(ReadExactly(daemon.get(), 1, 300), "");
}

TEST_F(DoorTest, ClaimInSingleBytesIsReadTheSame) {
  const auto gate = door_.Connect(door_.alice());
  for (const char* user : {"alice", "bob"}) {
    const Descriptor link = ConnectToLoopback(gate->port());
    for (const char byte : Handshake(user)) ASSERT_TRUE(WriteAll(link.get(), {&byte, 1}));
    EXPECT_EQ(ReadExactly(link.get(), 5), Frame("3"));
    const std::string answer = ReadExactly(link.get(), 12);
    EXPECT_THAT(answer.substr(4), StartsWith(user == std::string("bob") ? "Windows " : "OK|port-"));
  }
}

TEST_F(DoorTest, AllAtOnceBeforeTheGreetingIsReadTheSame) {
  const auto gate = door_.Connect(door_.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  ASSERT_TRUE(WriteAll(link.get(), Handshake("bob") + Handshake() + Handshake()));
  EXPECT_THAT(Rest(link), AllOf(StartsWith(Frame("3")), HasSubstr("'bob' is not proven")));
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("Path: ")));
}

TEST_F(DoorTest, SecondClaimAfterAProvenOneIsNone) {
  const auto gate = door_.Connect(door_.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  ASSERT_TRUE(WriteAll(link.get(), Handshake() + Handshake("bob")));
  EXPECT_THAT(Rest(link), HasSubstr("OK|port-"));
  EXPECT_EQ(door_.serving().Lines("admitted").size(), 1U);
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("bob")));
}

TEST_F(DoorTest, MasterThatLeavesBeforeItsClaimStartsNothing) {
  const auto gate = door_.Connect(door_.alice());
  const std::string request = Handshake();
  for (const std::size_t cut :
       {std::size_t{0}, std::size_t{5}, std::size_t{7}, request.size() - 11}) {
    const Descriptor link = ConnectToLoopback(gate->port());
    ASSERT_TRUE(WriteAll(link.get(), request.substr(0, cut)));
    shutdown(link.get(), SHUT_WR);
    EXPECT_EQ(Rest(link), Frame("3")) << cut;
  }
  door_.serving().Await("ended", 4);
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("Path: ")));
}

TEST_F(DoorTest, PeerThatIsNoMasterGetsWhatTheDaemonSays) {
  const auto gate = door_.Connect(door_.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  ASSERT_TRUE(WriteAll(link.get(), Frame("GET / HTTP/1.1") + Handshake()));
  EXPECT_EQ(Rest(link), Frame("3"));
  EXPECT_TRUE(daemon_.WaitForLog("Incorrect response from Corvane"));
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("Path: ")));
}

TEST_F(DoorTest, ClaimCannotForgeALineOfTheLog) {
  const auto gate = door_.Connect(door_.alice());
  const std::string forged =
      "x\"}\n{\"time\":\"now\",\"event\":\"admitted\",\"claimed\":\"root\"}\n\x1b[2J";
  AnswerTo(gate->port(), forged);
  EXPECT_EQ(door_.serving().Await("denied")["claimed"], forged);
  EXPECT_THAT(door_.serving().Lines("admitted"), IsEmpty());
  for (const char byte : door_.serving().Logged())
    EXPECT_TRUE(byte == '\n' || (byte >= 0x20 && byte < 0x7f));
  AnswerTo(gate->port(), std::string(30000, '\xff'));
  EXPECT_LT(door_.serving().Await("denied", 2)["claimed"].get<std::string>().size(), 1000U);
}

// Refused certificates.

class StrangerTest : public DoorTest {
 protected:
  // What a master behind a gate with this certificate is told.
  std::string Told(const Identity& identity, Door::Words more = {}) {
    const auto gate = door_.Connect(identity, std::move(more));
    const Descriptor link = ConnectToLoopback(gate->port());
    WriteAll(link.get(), Handshake());
    const auto frames = FramesOf(Rest(link));
    return frames.size() == 2 ? frames[1] : "not two frames";
  }
};

TEST_F(StrangerTest, ExpiredCertificateIsRefusedInTheMastersProtocol) {
  EXPECT_EQ(Told(door_.authority().Issue(
                "old", {.upn = "alice@example.com", .from = -7200, .until = -3600})),
            "vkgate: The other gate says: this certificate has expired");
  EXPECT_EQ(door_.serving().Await("refused")["why"], "The certificate has expired");
}

TEST_F(StrangerTest, CertificateOfAnotherAuthorityIsRefused) {
  Authority other(door_.directory().path().string(), "other");
  EXPECT_THAT(Told(other.Issue("stranger", {.upn = "alice@example.com"})),
              HasSubstr("this certificate is of no authority that it believes"));
}

TEST_F(StrangerTest, ServingGateOfAnotherAuthorityIsNotBelieved) {
  Authority other(door_.directory().path().string(), "other");
  const auto gate = door_.Connect(door_.alice(), {"--server=other.example.com"});
  const Descriptor link = ConnectToLoopback(gate->port());
  WriteAll(link.get(), Handshake());
  EXPECT_THAT(Rest(link), HasSubstr("certificate is not for the host"));
  EXPECT_THAT(daemon_.Logged(), Not(HasSubstr("Sending back version number")));
}

TEST_F(StrangerTest, PlainTextIsRefused) {
  const Descriptor link = ConnectToLoopback(door_.serving().port());
  ASSERT_TRUE(WriteAll(link.get(), Handshake()));
  Rest(link);
  EXPECT_EQ(door_.serving().Await("refused")["why"], "The peer does not speak TLS");
}

TEST_F(StrangerTest, ServingGateThatCannotBeReachedIsTold) {
  const auto gate = door_.Connect(door_.alice(), {}, FreePort());
  EXPECT_THAT(AnswerTo(gate->port(), "alice"), HasSubstr("cannot be reached: Connection refused"));
}

TEST_F(StrangerTest, ServingGateThatDoesNotAnswerIsTold) {
  const FullListener silent;
  const auto gate =
      door_.Connect(door_.alice(), {"--attempt-wait=1"}, PortOf(silent.listener.get()));
  EXPECT_THAT(AnswerTo(gate->port(), "alice"), HasSubstr("does not answer"));
  // The attempt that was given up is gone without harm.
  EXPECT_THAT(AnswerTo(gate->port(), "alice"), HasSubstr("does not answer"));
}

// Another service in its place, which waits for words of its own protocol.
TEST_F(StrangerTest, ServingGateThatSaysNothingIsTold) {
  const Descriptor silent = BindFreePort(5);
  const auto gate = door_.Connect(door_.alice(), {"--attempt-wait=1"}, PortOf(silent.get()));
  EXPECT_EQ(AnswerTo(gate->port(), "alice"), "vkgate: The gate at 127.0.0.1 does not answer");
}

TEST(NoDaemonTest, DaemonThatCannotBeReachedIsTold) {
  Door door(FreePort());
  const auto gate = door.Connect(door.alice());
  EXPECT_EQ(AnswerTo(gate->port(), "alice"), "vkgate: the serving gate cannot reach the daemon");
}

// A daemon whose machine takes no more connections: neither is the gate's peer to blame, nor does
// what was given up count among its links.
TEST(NoDaemonTest, DaemonThatDoesNotAnswerIsTold) {
  const FullListener silent;
  Door door(PortOf(silent.listener.get()), {"--arrival-wait=1", "--links-of-one=1"});
  const auto gate = door.Connect(door.alice());
  for (std::size_t i = 1; i <= 2; ++i) {
    EXPECT_EQ(AnswerTo(gate->port(), "alice"), "vkgate: the serving gate cannot reach the daemon");
    EXPECT_EQ(door.serving().Await("refused", i)["why"],
              "the serving gate cannot reach the daemon");
  }
}

// Limits.

TEST(LimitTest, ConnectionThatProvesNothingIsClosedInTime) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--arrival-wait=1"});
  const Descriptor silent = ConnectToLoopback(door.serving().port());
  EXPECT_EQ(Rest(silent, 5000), "");
  EXPECT_THAT(door.serving().Await("refused")["why"], HasSubstr("too long"));
  // Neither does a byte now and then help.
  const Descriptor slow = ConnectToLoopback(door.serving().port());
  const auto begun = std::chrono::steady_clock::now();
  for (const char byte : Bytes("16 03 01 02 00 01 00 01 fc 03 03 00 00 00 00 00 00 00 00 00")) {
    if (!WriteAll(slow.get(), {&byte, 1})) break;
    usleep(200'000);
  }
  EXPECT_EQ(Rest(slow, 5000), "");
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(8));
  EXPECT_EQ(door.serving().Await("refused", 2)["why"], door.serving().Lines("refused")[0]["why"]);
}

TEST(LimitTest, ConnectionThatHasProvenNothingIsClosedAtTheGatesEnd) {
  const FullListener daemon;
  Door door(PortOf(daemon.listener.get()));
  const Descriptor silent = ConnectToLoopback(door.serving().port());
  RawGate waiting(door.serving().port(), door.alice(), door.authority().file());
  waiting.Say(BytesOf(gate::Opening{}));
  ASSERT_TRUE(Eventually([&] { return door.Status()["arriving"] == 2; }));
  kill(door.serving().pid(), SIGTERM);
  EXPECT_EQ(Rest(silent, 5000), "");
  EXPECT_EQ(waiting.Hear(1), "");
  EXPECT_EQ(door.serving().Await("refused", 2)["why"], "The gate ends");
  EXPECT_TRUE(Eventually([&] { return door.Status()["running"] == false; }));
}

TEST(LimitTest, OneAddressHasOnlySoManyConnectionsThatProveNothing) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--arriving-of-one=3"});
  std::vector<Descriptor> silent;
  silent.reserve(4);
  for (int i = 0; i < 4; ++i) silent.push_back(ConnectToLoopback(door.serving().port()));
  EXPECT_THAT(door.serving().Await("refused")["why"], HasSubstr("from this address"));
  EXPECT_EQ(Rest(silent[3], 5000), "");
  silent.clear();
  const auto gate = door.Connect(door.alice());
  EXPECT_TRUE(Eventually([&] { return AnswerTo(gate->port(), "alice").starts_with("OK|"); }));
}

TEST(LimitTest, LongestUnprovenConnectionMakesRoomForTheNext) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--arriving=3"});
  std::vector<Descriptor> silent;
  silent.reserve(3);
  for (int i = 0; i < 3; ++i) silent.push_back(ConnectToLoopback(door.serving().port()));
  const auto gate = door.Connect(door.alice());
  EXPECT_THAT(AnswerTo(gate->port(), "alice"), StartsWith("OK|"));
  EXPECT_EQ(Rest(silent[0], 5000), "");
  EXPECT_THAT(door.serving().Await("refused")["why"], HasSubstr("have proven nothing"));
}

TEST(LimitTest, MasterThatDoesNotSayWhoItIsIsRefusedInTime) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--claim-wait=1"});
  const auto gate = door.Connect(door.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  WriteAll(link.get(), Handshake().substr(0, 30));
  EXPECT_EQ(Rest(link), Frame("3") + Frame("The request has taken too long"));
  EXPECT_THAT(daemon.Logged(), Not(HasSubstr("Path: ")));
  EXPECT_EQ(door.serving().Await("denied")["why"], "The request has taken too long");
  shutdown(link.get(), SHUT_WR);
  EXPECT_EQ(door.serving().Await("ended")["verdict"], "denied");
}

TEST(LimitTest, LinkWhoseMasterHasProvenNothingInTimeEnds) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--claim-wait=1"});
  std::make_unique<RawGate>(door.serving().port(), door.alice(), door.authority().file())
      ->Say(BytesOf(gate::Opening{}));
  EXPECT_EQ(door.serving().Await("ended")["how"], "the master has not proven who it is in time");
}

TEST(LimitTest, RefusedMasterThatDoesNotGoIsEnded) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--claim-wait=1"});
  const auto gate = door.Connect(door.alice());
  const auto before = OpenDescriptors(gate->pid());
  const Descriptor link = ConnectToLoopback(gate->port());
  WriteAll(link.get(), Handshake("bob"));
  EXPECT_THAT(Rest(link), HasSubstr("'bob' is not proven"));
  ASSERT_TRUE(
      Eventually([&] { return !door.serving().Lines("ended").empty(); }, std::chrono::seconds(20)));
  const auto ended = door.serving().Lines("ended")[0];
  EXPECT_EQ(ended["how"], "the master has not proven who it is in time");
  EXPECT_EQ(ended["verdict"], "denied");
  EXPECT_GE(ended["seconds"], 10);
  EXPECT_EQ(gate->Await("ended")["how"], ended["how"]);
  EXPECT_TRUE(Eventually([&] { return OpenDescriptors(gate->pid()) <= before; }));
}

TEST(LimitTest, MasterThatSendsTooMuchBeforeItsClaimIsRefused) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--claim-bytes=1000"});
  const auto gate = door.Connect(door.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  WriteAll(link.get(), Frame("3") + Frame("0") + Frame(std::string(2000, 'x')) + Handshake());
  EXPECT_EQ(Rest(link), Frame("3") + Frame("The request is longer than the gate takes"));
  EXPECT_THAT(daemon.Logged(), Not(HasSubstr("Path: ")));
  EXPECT_EQ(door.serving().Await("denied")["why"], "The request is longer than the gate takes");
  shutdown(link.get(), SHUT_WR);
  EXPECT_EQ(door.serving().Await("ended")["verdict"], "denied");
}

TEST(LimitTest, OneCertificateHasOnlySoManyLinks) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--links-of-one=2"});
  const auto gate = door.Connect(door.alice());
  TestMaster first(gate->port());
  TestMaster second(gate->port());
  first.Receive();
  second.Receive();
  EXPECT_EQ(AnswerTo(gate->port(), "alice"), "vkgate: there are too many links");
  // Another certificate of the same names counts with it, one of other names does not.
  const auto renewed =
      door.Connect(door.authority().Renew(door.alice(), "alice2", {.upn = "alice@example.com"}));
  EXPECT_EQ(AnswerTo(renewed->port(), "alice"), "vkgate: there are too many links");
  const auto other = door.Connect(door.authority().Issue("bob", {.upn = "bob@example.com"}));
  EXPECT_THAT(AnswerTo(other->port(), "bob"), StartsWith("OK|"));
  second.Leave();
  EXPECT_TRUE(Eventually([&] { return AnswerTo(gate->port(), "alice").starts_with("OK|"); }));
}

TEST(LimitTest, ThereAreOnlySoManyLinksInAll) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--links=1"});
  const auto gate = door.Connect(door.alice());
  TestMaster first(gate->port());
  first.Receive();
  const auto other = door.Connect(door.authority().Issue("bob", {.upn = "bob@example.com"}));
  EXPECT_EQ(AnswerTo(other->port(), "bob"), "vkgate: there are too many links");
}

// The machine of several people.

TEST(SharedMachineTest, MasterOfAnotherUserIsRefusedByTheConnectingGate) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port());
  const auto gate = door.Connect(door.alice());
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("answer");
  options.in_child = [&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 1;
    WriteAll(1, AnswerTo(gate->port(), "alice"));
    return 0;
  };
  ChildProcess stranger({}, options);
  EXPECT_EQ(stranger.Wait(std::chrono::seconds(20)), 0);
  EXPECT_EQ(directory.Read("answer"),
            "This gate serves its own user's masters alone: it is another user's, number 65534");
  EXPECT_THAT(door.serving().Lines("begun"), IsEmpty());
}

// A master with a gate in its own process.

class OwnGateTest : public DoorTest {
 protected:
  Outcome Master(const Identity& identity, const std::string& user, int port = 0,
                 const std::string& stop = "shutdown") {
    const std::string to = std::to_string(port != 0 ? port : door_.serving().port());
    return RunProgram("vkmaster",
                      {"--gate=127.0.0.1:" + to, "--certificate=" + identity.certificate,
                       "--key=" + identity.key, "--authority=" + door_.authority().file(),
                       "--user=" + user, "--path=/tmp/", "--root=CASE", "--no-connect", stop});
  }
};

TEST_F(OwnGateTest, ProvenUserIsServed) {
  const Outcome outcome = Master(door_.alice(), "alice");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(door_.serving().Await("admitted")["claimed"], "alice");
  EXPECT_EQ(door_.serving().Await("ended")["how"], "both ends have finished");
}

TEST_F(OwnGateTest, StolenNameIsRefused) {
  const Outcome outcome = Master(door_.alice(), "bob");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("Windows user 'bob' is not proven by the certificate"));
}

TEST_F(OwnGateTest, WhyTheGateCannotBeReachedIsSaid) {
  const Outcome outcome = Master(door_.alice(), "alice", FreePort());
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("cannot be reached: Connection refused"));
  const Outcome expired = Master(
      door_.authority().Issue("old", {.upn = "alice@example.com", .from = -7200, .until = -3600}),
      "alice");
  EXPECT_EQ(expired.status, 3);
  EXPECT_THAT(expired.err, HasSubstr("this certificate has expired"));
}

TEST_F(OwnGateTest, MissingCertificateIsAMistakeInTheOptions) {
  const Outcome outcome = Master({"/nonexistent", door_.alice().key}, "alice");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("/nonexistent"));
}

TEST(LimitTest, StrangersThatDoNotCloseHoldOnlySoManyDescriptors) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--arriving=8"});
  const auto held = [&] { return OpenDescriptors(door.serving().pid()); };
  const auto before = held();
  std::vector<Descriptor> silent;
  silent.reserve(100);
  for (int i = 0; i < 100; ++i) silent.push_back(ConnectToLoopback(door.serving().port()));
  EXPECT_TRUE(Eventually([&] { return door.Status()["counts"]["refused"] == 92; }));
  EXPECT_LE(held(), before + 16);
}

TEST(LimitTest, StrangerThatTalksOnIsNotListenedToForEver) {
  Door door(FreePort());
  const Descriptor stranger = ConnectToLoopback(door.serving().port());
  const timeval patience{4, 0};  // The gate closes after 5 seconds in any case.
  setsockopt(stranger.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  std::size_t pieces = 0;
  while (pieces < 64 && WriteAll(stranger.get(), std::string(1 << 20, 'x'))) ++pieces;
  EXPECT_GE(pieces, 16U);
  EXPECT_LT(pieces, 64U);
}

TEST(LimitTest, StrangersDoNotFillTheLog) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port(), {"--arriving=100"});
  for (int i = 0; i < 200; ++i)
    WriteAll(ConnectToLoopback(door.serving().port()).get(), "nonsense");
  EXPECT_TRUE(Eventually([&] { return door.Status()["counts"]["refused"] == 200; }));
  EXPECT_LT(door.serving().Lines("refused").size(), 150U);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  WriteAll(ConnectToLoopback(door.serving().port()).get(), "nonsense");
  EXPECT_TRUE(Eventually([&] {
    const auto lines = door.serving().Lines("refused");
    return lines.back().contains("refused_untold") && lines.back()["refused_untold"] > 50;
  }));
}

// Somebody who was let in once can be refused as often as a stranger.
TEST(LimitTest, OwnerOfACertificateDoesNotFillTheLog) {
  RunningDaemon daemon(Unprivileged());
  Door door(daemon.port());
  const auto refused_as = [&](const Identity& identity) {
    RawGate gate(door.serving().port(), identity, door.authority().file());
    gate.Say(BytesOf(gate::Opening{.id = {{1}}, .epoch = 1}));
    EXPECT_EQ(gate.Hear(gate::Answer::kSize), gate::Refusal(gate::Reason::kUnknown));
  };
  const auto begun = std::chrono::steady_clock::now();
  for (int i = 0; i < 150; ++i) refused_as(door.alice());
  const auto took =
      std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - begun);
  EXPECT_TRUE(Eventually([&] { return door.Status()["counts"]["refused"] == 150; }));
  EXPECT_LE(door.serving().Lines("refused").size(), 20U * static_cast<unsigned>(took.count() + 1));
  // That hides nobody else.
  refused_as(door.authority().Issue("bob", {.upn = "bob@example.com"}));
  EXPECT_TRUE(Eventually(
      [&] { return door.serving().Lines("refused").back()["names"][0] == "upn:bob@example.com"; }));
}

// What is told.

TEST_F(DoorTest, StatusSaysWhoseTheDaemonsConnectionsAre) {
  const auto gate = door_.Connect(door_.alice());
  TestMaster master(gate->port());
  master.RequestRun(Claiming("alice"));
  ASSERT_THAT(Text(master.Receive()), StartsWith("OK|"));
  ASSERT_TRUE(Eventually([&] { return door_.Status()["links"].size() == 1; }));
  ASSERT_TRUE(Eventually([&] { return door_.Status()["links"][0].contains("claimed"); }));
  const auto status = door_.Status();
  const auto link = status["links"][0];
  EXPECT_EQ(link["claimed"], "alice");
  // The status of the daemon's runs has the same beside what the master claims.
  const Outcome told =
      Jobmillctl({"status", "--json", "--gates", door_.directory().path().string()});
  const auto runs = nlohmann::json::parse(told.out)["runs"];
  const auto run = std::find_if(runs.begin(), runs.end(),
                                [&](const auto& any) { return any["port"] == daemon_.port(); });
  ASSERT_NE(run, runs.end()) << told.out;
  EXPECT_EQ((*run)["proven_name"], "upn:alice@example.com");
  EXPECT_THAT((*run)["gate"].get<std::string>(), StartsWith("127.0.0.1:"));
  EXPECT_EQ(link["proof"], "upn:alice@example.com");
  EXPECT_EQ(link["broken_seconds"], nullptr);
  EXPECT_GT(link["bytes_to_daemon"], 30);
  EXPECT_EQ(status["counts"]["admitted"], 1);
  // The port of the daemon's connection, as its kernel knows it.
  EXPECT_GT(link["daemon_port"], 0);
}

}  // namespace
