// Links that break, between both gates as programs.

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gate/opening.h"
#include "tests/gate/breaking_relay.h"
#include "tests/gate/door.h"
#include "tests/gate/echo_daemon.h"
#include "tests/gate/raw_gate.h"
#include "tests/support/bytes.h"
#include "tests/support/ports.h"
#include "tests/support/sanitized.h"
#include "tests/system/site.h"

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::SizeIs;

class ResumptionTest : public testing::Test {
 protected:
  // The master's end of an admitted link.
  Descriptor Admitted(int port, const std::string& user = "alice") {
    Descriptor link = ConnectToLoopback(port);
    WriteAll(link.get(), Handshake(user));
    EXPECT_EQ(ReadExactly(link.get(), 5), Frame("3"));
    EXPECT_EQ(ReadExactly(link.get(), Handshake(user).size()), Handshake(user));
    return link;
  }

  void ExpectEcho(const Descriptor& link, const std::string& bytes) {
    ASSERT_TRUE(WriteAll(link.get(), bytes));
    EXPECT_EQ(ReadExactly(link.get(), bytes.size()), bytes);
  }

  void Build(Door::Words serve = {}) {
    door_ = std::make_unique<Door>(daemon_.port(), std::move(serve));
    relay_ = std::make_unique<BreakingRelay>(door_->serving().port());
  }
  std::unique_ptr<RunningGate> Connect(Door::Words more = {}) {
    more.push_back("--longest-pause=0.05");
    return door_->Connect(door_->alice(), std::move(more), relay_->port());
  }

  EchoDaemon daemon_;
  std::unique_ptr<Door> door_;
  std::unique_ptr<BreakingRelay> relay_;
};

TEST_F(ResumptionTest, BothSidesGoOnWhereTheyWere) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  for (int i = 1; i <= 10; ++i) {
    relay_->Cut();
    if (i % 2 == 0) ExpectEcho(link, "after cut " + std::to_string(i));
    EXPECT_NO_THROW(gate->Await("resumed", static_cast<std::size_t>(i)));
  }
  ExpectEcho(link, "at the end");
  shutdown(link.get(), SHUT_WR);
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_EQ(gate->Await("ended")["how"], "both ends have finished");
  EXPECT_EQ(gate->Lines("ended")[0]["resumptions"], 10);
  EXPECT_EQ(door_->serving().Await("ended")["how"], "both ends have finished");
}

TEST_F(ResumptionTest, NothingIsLostDoubledOrReorderedUnderLoad) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  std::mt19937 random(20261122);
  std::string bytes(24 << 20, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  std::string sent;
  std::thread writer([&] {
    do {  // A link that is slow to come back is not cut often in one go.
      WriteAll(link.get(), bytes);
      sent += bytes;
    } while (relay_->count() <= 20);
    shutdown(link.get(), SHUT_WR);
  });
  std::string got;
  while (true) {
    const std::string part = ReadExactly(link.get(), 1 + random() % 100'000);
    if (part.empty()) break;
    got += part;
    if (relay_->count() < 200) relay_->Cut();
  }
  writer.join();
  EXPECT_TRUE(got == sent) << got.size() << " of " << sent.size();
  EXPECT_GT(relay_->count(), 20);
}

TEST_F(ResumptionTest, SilenceIsABreak) {
  Build({"--silence=2"});
  const auto gate = Connect({"--silence=2"});
  const Descriptor link = Admitted(gate->port());
  relay_->FallSilent();
  gate->Await("broken");
  door_->serving().Await("broken");
  EXPECT_THAT(gate->Lines("broken")[0]["why"], HasSubstr("silent"));
  relay_->Cut();
  relay_->Recover();
  gate->Await("resumed");
  ExpectEcho(link, "still here");
}

TEST_F(ResumptionTest, IdleLinkIsNoSilentOne) {
  Build({"--silence=1"});
  const auto gate = Connect({"--silence=1"});
  const Descriptor link = Admitted(gate->port());
  std::this_thread::sleep_for(milliseconds(3500));
  EXPECT_THAT(gate->Lines("broken"), SizeIs(0));
  EXPECT_THAT(door_->serving().Lines("broken"), SizeIs(0));
  ExpectEcho(link, "still here");
}

TEST_F(ResumptionTest, DaemonMayEndTheConnectionWhileTheLinkIsBroken) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  relay_->RefuseNew();
  relay_->Cut();
  door_->serving().Await("broken");
  daemon_.HangUp();
  relay_->Recover();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
}

TEST_F(ResumptionTest, MasterIsClosedWhoseDaemonHasGoneForGood) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  daemon_.HangUp();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  // It goes on as if only the other direction had ended. The daemon's machine answers probes with a
  // reset.
  EXPECT_TRUE(Eventually([&] { return !WriteAll(link.get(), "x"); }));
  gate->Await("ended");
  door_->serving().Await("ended");
}

TEST_F(ResumptionTest, HalfClosedConnectionStaysHalfClosed) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  daemon_.StopReading();
  ASSERT_TRUE(WriteAll(link.get(), "the last words"));
  shutdown(link.get(), SHUT_WR);
  std::this_thread::sleep_for(milliseconds(2500));
  relay_->Cut();
  gate->Await("resumed");
  daemon_.ReadOn();
  EXPECT_EQ(ReadExactly(link.get(), 100), "the last words");
  EXPECT_EQ(gate->Await("ended")["how"], "both ends have finished");
}

TEST_F(ResumptionTest, AbsenceLongerThanTheHoldEndsBothSides) {
  Build({"--hold=0.0005"});
  const auto gate = Connect({"--hold=0.0005"});  // 1.8 seconds
  const Descriptor link = Admitted(gate->port());
  relay_->RefuseNew();
  relay_->Cut();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_EQ(gate->Await("ended")["how"], "the link was broken for too long");
  EXPECT_EQ(door_->serving().Await("ended")["how"], "the link was broken for too long");
  EXPECT_TRUE(Eventually([&] { return daemon_.connections() == 0; }));
}

TEST_F(ResumptionTest, WithoutHoldABreakEndsBothSidesAtOnce) {
  Build({"--hold=0"});
  const auto gate = Connect({"--hold=0"});
  const Descriptor link = Admitted(gate->port());
  relay_->Cut();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  gate->Await("ended");
  door_->serving().Await("ended");
  EXPECT_EQ(relay_->count(), 1);
}

TEST_F(ResumptionTest, EndOfEitherGateEndsBothSides) {
  for (const bool serving : {true, false}) {
    Build();
    const auto gate = Connect();
    const Descriptor link = Admitted(gate->port());
    const RunningGate& ended = serving ? door_->serving() : *gate;
    const RunningGate& other = serving ? *gate : door_->serving();
    kill(ended.pid(), SIGTERM);
    EXPECT_EQ(ReadExactly(link.get(), 1), "");
    EXPECT_EQ(other.Await("ended")["how"], "an administrator has ended it");
    EXPECT_TRUE(Eventually([&] { return daemon_.connections() == 0; }));
    EXPECT_EQ((serving ? door_->serving() : *gate).process().Wait(milliseconds(5000)), 0);
  }
}

TEST_F(ResumptionTest, ConnectingGateEndsWhileTheLinkIsBroken) {
  Build({"--hold=0.0005"});
  const auto gate = door_->Connect(door_->alice(), {}, relay_->port());
  const Descriptor link = Admitted(gate->port());
  relay_->RefuseNew();
  relay_->Cut();
  gate->Await("broken");
  kill(gate->pid(), SIGTERM);
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_EQ(gate->Await("ended")["how"], "an administrator has ended it");
  EXPECT_EQ(gate->process().Wait(milliseconds(5000)), 0);
  // The serving gate could not be told, and holds what it has for as long as it should.
  EXPECT_EQ(door_->serving().Await("ended")["how"], "the link was broken for too long");
}

TEST_F(ResumptionTest, GateThatHasDiedCannotBeResumed) {
  Build();
  auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  relay_->RefuseNew();
  kill(door_->serving().pid(), SIGKILL);
  gate->Await("broken");
  door_->Restart(daemon_.port(), {}, relay_->target());
  relay_->Recover();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_EQ(gate->Await("ended")["how"], "there is no such link");
}

TEST_F(ResumptionTest, RenewedCertificateOfTheSameNamesServes) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  door_->authority().Renew(door_->alice(), "alice", {.upn = "Alice@example.com"});
  relay_->Cut();
  gate->Await("resumed");
  EXPECT_THAT(gate->Lines("reloaded"), SizeIs(1));
  ExpectEcho(link, "renewed");
}

TEST_F(ResumptionTest, CertificateOfOtherNamesDoesNot) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  door_->authority().Renew(door_->alice(), "alice", {.upn = "bob@example.com"});
  relay_->Cut();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_EQ(gate->Await("ended")["how"], "there is no such link");
  EXPECT_THAT(door_->serving().Lines("ended"), SizeIs(0));
}

// A Door whose serving gate has a list of revoked certificates.
class RevocationTest : public ResumptionTest {
 protected:
  void SetUp() override {
    Build();
    const std::string list = door_->authority().List("list.crl");
    door_->Restart(daemon_.port(), {"--revoked=" + list});
    relay_ = std::make_unique<BreakingRelay>(door_->serving().port());
  }
  void Revoke() { Revoke(door_->alice()); }
  void Revoke(const Identity& identity) {
    door_->authority().Revoke(identity);
    door_->authority().List("list.crl");
    kill(door_->serving().pid(), SIGHUP);
    door_->serving().Await("reloaded");
  }
};

TEST_F(RevocationTest, EndsALivingLink) {
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  Revoke();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_EQ(gate->Await("ended")["how"], "the certificate is no longer accepted");
  EXPECT_EQ(door_->serving().Await("no longer good")["why"], "The certificate has been revoked");
  EXPECT_TRUE(Eventually([&] { return daemon_.connections() == 0; }));
}

TEST_F(RevocationTest, EndsABrokenLinkWhenItComesBack) {
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  relay_->RefuseNew();
  relay_->Cut();
  door_->serving().Await("broken");
  Revoke();
  EXPECT_EQ(door_->serving().Await("ended")["how"], "the certificate is no longer accepted");
  relay_->Recover();
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_EQ(gate->Await("ended")["how"], "the certificate is no longer accepted");
}

// The certificate was accepted before it was revoked, and the opening comes after that.
TEST_F(RevocationTest, RefusesAConnectionThatIsOnlyJustBeginning) {
  const Identity renewed = door_->authority().Issue("renewed", {.upn = "alice@example.com"});
  const auto connect = [&](const Identity& identity) {
    return RawGate(door_->serving().port(), identity, door_->authority().file());
  };
  RawGate link = connect(door_->alice());
  link.Say(gate::BytesOf(gate::Opening{}));
  const auto begun = std::get<gate::Answer>(gate::ReadAnswer(link.Hear(gate::Answer::kSize)));
  RawGate beginning = connect(renewed);
  RawGate resuming = connect(renewed);
  RawGate good = connect(door_->alice());
  Revoke(renewed);
  beginning.Say(gate::BytesOf(gate::Opening{}));
  EXPECT_EQ(beginning.Hear(gate::Answer::kSize), gate::Refusal(gate::Reason::kNotValid));
  resuming.Say(gate::BytesOf(gate::Opening{.id = begun.id, .epoch = 1}));
  EXPECT_EQ(resuming.Hear(gate::Answer::kSize), gate::Refusal(gate::Reason::kNotValid));
  EXPECT_THAT(door_->serving().Lines("begun"), SizeIs(1));
  good.Say(gate::BytesOf(gate::Opening{}));
  EXPECT_TRUE(std::get<gate::Answer>(gate::ReadAnswer(good.Hear(gate::Answer::kSize))).accepted);
}

TEST_F(RevocationTest, LeavesOthersAlone) {
  const auto gate = door_->Connect(door_->authority().Issue("bob", {.upn = "bob@example.com"}));
  const Descriptor link = Admitted(gate->port(), "bob");
  Revoke();
  ExpectEcho(link, "still here");
  EXPECT_THAT(door_->serving().Lines("ended"), SizeIs(0));
}

TEST_F(ResumptionTest, UserTakenOutOfTheFileEndsALivingLink) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  door_->directory().Write("users", "upn:alice@example.com alice2\n");
  kill(door_->serving().pid(), SIGHUP);
  EXPECT_EQ(ReadExactly(link.get(), 1), "");
  EXPECT_THAT(door_->serving().Await("no longer good")["why"], HasSubstr("'alice' is not proven"));
}

TEST_F(ResumptionTest, ReloadThatFailsLeavesAllAsItWas) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  door_->directory().Write("users", "nonsense\n");
  kill(door_->serving().pid(), SIGHUP);
  EXPECT_THAT(door_->serving().Await("reload failed")["why"], HasSubstr("users:1:"));
  ExpectEcho(link, "still here");
  Admitted(gate->port());
}

TEST_F(ResumptionTest, ReloadTakesANewCertificateWithoutDroppingALink) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  door_->authority().Issue("server", {.common_name = "new", .address = "127.0.0.1"});
  kill(door_->serving().pid(), SIGHUP);
  door_->serving().Await("reloaded");
  ExpectEcho(link, "still here");
  relay_->Cut();
  gate->Await("resumed");
  ExpectEcho(link, "with the new one");
  Admitted(gate->port());
}

TEST_F(ResumptionTest, MemoryIsBoundedWhenNobodyReads) {
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  daemon_.StopReading();
  const long before = StatusValue(door_->serving().pid(), "VmRSS");
  const std::string piece(1 << 20, 'x');
  std::size_t put = 0;
  const timeval patience{1, 0};
  setsockopt(link.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  while (put < (std::size_t{256} << 20)) {
    const ssize_t sent = send(link.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    if (sent <= 0) break;
    put += static_cast<std::size_t>(sent);
  }
  EXPECT_LT(put, std::size_t{32} << 20);  // the windows, and the kernel's own buffers
  if (kSanitized) return;
  // The window of 4 MiB in either gate, and what the allocator keeps around it.
  EXPECT_LT(StatusValue(door_->serving().pid(), "VmRSS") - before, 10 << 10);
}

TEST_F(ResumptionTest, NothingIsLeftOfManyResumptions) {
  constexpr std::size_t kBefore = 50;
  constexpr std::size_t kMore = 200;
  Build();
  const auto gate = Connect();
  const Descriptor link = Admitted(gate->port());
  const auto resume = [&](std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
      relay_->Cut();
      ExpectEcho(link, std::string(1000, 'x'));
    }
  };
  resume(0, kBefore);
  const auto sizes = [](const RunningGate& of) {
    return std::pair(StatusValue(of.pid(), "VmRSS"), OpenDescriptors(of.pid()));
  };
  const auto serving = sizes(door_->serving());
  const auto connecting = sizes(*gate);
  resume(kBefore, kBefore + kMore);
  // A connection that has just been cut may not have been closed yet.
  EXPECT_TRUE(Eventually([&] { return sizes(door_->serving()).second <= serving.second + 1; }));
  EXPECT_TRUE(Eventually([&] { return sizes(*gate).second <= connecting.second + 1; }));
  if (kSanitized) return;
  EXPECT_LT(sizes(door_->serving()).first, serving.first + 1024);
  EXPECT_LT(sizes(*gate).first, connecting.first + 1024);
}

TEST_F(ResumptionTest, IdleLinksTakeLittleMemory) {
  constexpr int kLinks = 300;
  Build({"--links-of-one=1000"});
  const auto gate = Connect({"--masters=1000"});
  std::vector<Descriptor> links;
  links.reserve(kLinks);
  for (int i = 0; i < 50; ++i) links.push_back(Admitted(gate->port()));
  const long serving = StatusValue(door_->serving().pid(), "VmRSS");
  const long connecting = StatusValue(gate->pid(), "VmRSS");
  for (int i = 0; i < kLinks; ++i) links.push_back(Admitted(gate->port()));
  const long each = (StatusValue(door_->serving().pid(), "VmRSS") - serving) / kLinks;
  const long other = (StatusValue(gate->pid(), "VmRSS") - connecting) / kLinks;
  std::cout << "serving " << each << " KiB a link, connecting " << other << " KiB\n";
  if (kSanitized) return;
  // Half of what a process or thread a link takes.
  EXPECT_LT(each, 60);
  EXPECT_LT(other, 60);
}

constexpr const char* kDeck =
    "[run]\nunits = \"METRIC\"\nfluid = \"BLACK_OIL\"\nstart = 2020-02-27\nend_time = 400\n"
    "max_step = 10\n[reservoir]\npressure = 300\ntemperature = 95\nlength = 2000\nwidth = 1500\n"
    "thickness = 15\nporosity = 0.2\nwater_saturation = 0.2\n[black_oil]\napi = 35\n"
    "gas_gravity = 0.75\nbubble_point = 180\n[flow]\noil_viscosity = 0.8\nwater_viscosity = 0.4\n"
    "[[well]]\nname = \"P1\"\ntype = \"PRODUCER\"\nproductivity_index = 5\ndepth = 1300\n"
    "tubing_diameter = 88.9\n[well.constraints]\nBOTTOM_HOLE_PRESSURE = 120\n"
    "[[well]]\nname = \"W1\"\ntype = \"WATER_INJECTOR\"\ninjectivity_index = 10\ndepth = 2550\n"
    "tubing_diameter = 114.3\n[well.constraints]\nWATER_INJECTION_RATE = 700\n";

// What a run says, asked in the same way each time.
std::string Course(master::Run& run, const std::function<void()>& between) {
  std::ostringstream said;
  said.precision(17);
  for (const double day : {10.0, 40.0, 90.0, 200.0}) {
    between();
    run.RunUntil(day);
    between();
    said << run.GetTimeDays();
    for (const auto& point : run.GetWellData({"P1", "W1"})) {
      said << " " << point.oil_rate << " " << point.water_injection_rate << " "
           << point.bottom_hole_pressure;
    }
    said << "\n";
  }
  run.Shutdown();
  return said.str();
}

TEST(RunThroughTheDoorTest, RunThatIsCutAgainAndAgainIsTheUncutRun) {
  Site site;
  Door door(site.daemon().port());
  BreakingRelay relay(door.serving().port());
  const auto gate = door.Connect(door.alice(), {"--longest-pause=0.05"}, relay.port());
  const std::string uncut = Course(*site.Start("UNCUT", kDeck), [] {});
  const std::string cut =
      Course(*site.Start("CUT", kDeck, "20172", gate->port()), [&] { relay.Cut(); });
  EXPECT_EQ(cut, uncut);
  EXPECT_GT(cut.size(), 100U);
  EXPECT_GE(relay.count(), 8);
  EXPECT_TRUE(site.IsQuiet("CUT"));
  EXPECT_EQ(gate->Await("ended")["how"], "both ends have finished");
}

}  // namespace
