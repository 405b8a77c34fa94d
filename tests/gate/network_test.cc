// What networks do to links between both gates as programs. Small here; with
// JOBMILL_FULL_SIZE set, as CI does, in the sizes that the page on reliability names.

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/gate/breaking_relay.h"
#include "tests/gate/door.h"
#include "tests/gate/echo_daemon.h"
#include "tests/support/bytes.h"
#include "tests/support/delaying_relay.h"
#include "tests/support/private_network.h"
#include "tests/support/sanitized.h"
#include "tests/system/site.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

const bool kFullSize = std::getenv("JOBMILL_FULL_SIZE") != nullptr;

std::string RandomBytes(std::size_t size) {
  std::mt19937 random(20261122);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

// A master that an EchoDaemon has let in. Throws when it is not.
Descriptor Admitted(int port) {
  Descriptor link = ConnectToLoopback(port);
  WriteAll(link.get(), Handshake());
  const std::string expected = Frame("3") + Handshake();
  if (ReadExactly(link.get(), expected.size()) != expected) throw std::runtime_error("not let in");
  return link;
}

bool IsEchoed(const Descriptor& link, const std::string& bytes) {
  std::thread writer([&] { WriteAll(link.get(), bytes); });
  const std::string got = ReadExactly(link.get(), bytes.size());
  writer.join();
  return got == bytes;
}

std::vector<std::string> NamesOf(int wells) {
  std::vector<std::string> names(static_cast<std::size_t>(wells));
  for (std::size_t i = 0; i < names.size(); ++i) names[i] = "X" + std::to_string(i);
  return names;
}

std::string DeckOf(int wells) {
  std::string deck =
      "[run]\nunits = \"METRIC\"\nfluid = \"BLACK_OIL\"\nstart = 2020-02-27\nend_time = 4000\n"
      "max_step = 10\n[reservoir]\npressure = 300\ntemperature = 95\nlength = 20000\n"
      "width = 15000\nthickness = 15\nporosity = 0.2\nwater_saturation = 0.2\n[black_oil]\n"
      "api = 35\ngas_gravity = 0.75\nbubble_point = 180\n[flow]\noil_viscosity = 0.8\n"
      "water_viscosity = 0.4\n";
  for (int i = 0; i < wells; ++i) {
    deck += "[[well]]\nname = \"X" + std::to_string(i) +
            "\"\ntype = \"PRODUCER\"\nproductivity_index = 0.01\ndepth = 1300\n"
            "tubing_diameter = 88.9\n[well.constraints]\nBOTTOM_HOLE_PRESSURE = 120\n";
  }
  return deck;
}

std::string Said(const std::vector<master::WellData>& points) {
  std::string said;
  for (const master::WellData& point : points) {
    said += point.status + Image(point.oil_rate) + Image(point.gas_rate) + Image(point.water_rate) +
            Image(point.bottom_hole_pressure);
  }
  return said;
}

// A run of many wells whose data are fetched all the time, with and without reading ahead, while
// its link is cut at random moments.
TEST(GateNetworkTest, RunOfManyWellsCutAtRandomMomentsIsTheUncutRun) {
  const int wells = kFullSize ? 5000 : 300;
  const int cuts = kFullSize ? 200 : 30;
  const std::vector<std::string> names = NamesOf(wells);
  Site site;
  Door door(site.daemon().port());
  for (const bool ahead : {true, false}) {
    BreakingRelay relay(door.serving().port());
    Door::Words options{"--longest-pause=0.02"};
    if (!ahead) options.emplace_back("--no-ahead");
    const auto gate = door.Connect(door.alice(), options, relay.port());
    std::vector<std::string> heard;
    {
      const auto run = site.Start(ahead ? "AHEAD" : "ASKED", DeckOf(wells), "20172", gate->port());
      if (ahead) run->AskOneByOne();
      std::atomic<bool> stop = false;
      std::thread cutter([&] {
        std::mt19937 random(1);
        while (!stop) {
          std::this_thread::sleep_for(milliseconds(random() % 60));
          relay.Cut();
        }
      });
      for (int day = 1; relay.count() <= cuts; ++day) {
        run->RunUntil(day);
        heard.push_back(Said(run->GetWellData(names)));
      }
      stop = true;
      cutter.join();
      run->Shutdown();
    }
    EXPECT_EQ(gate->Await("ended")["how"], "both ends have finished");
    EXPECT_TRUE(site.IsQuiet(ahead ? "AHEAD" : "ASKED"));
    const auto uncut = site.Start(ahead ? "AHEAD_UNCUT" : "ASKED_UNCUT", DeckOf(wells));
    for (std::size_t i = 0; i < heard.size(); ++i) {
      uncut->RunUntil(static_cast<double>(i + 1));
      ASSERT_TRUE(Said(uncut->GetWellData(names)) == heard[i]) << "day " << i + 1;
    }
    uncut->Shutdown();
    std::cout << relay.count() - 1 << " cuts in " << heard.size() << " days of " << wells
              << " wells\n";
  }
}

// A master that asks for each record when it has the one before: over 10 ms there and back it takes
// half as long again as beside the daemon, and two round trips; a round trip each without reading
// ahead.
TEST(GateNetworkTest, RecordsOfManyWellsOverALongLinkCostTwoRoundTrips) {
  constexpr int wells = 5000;
  constexpr milliseconds kOneWay{5};
  constexpr int few = 50;
  Site site;
  Door door(site.daemon().port());
  const auto fetch = [&](const char* name, int count, int port) {
    const std::vector<std::string> names = NamesOf(count);
    const auto run = site.Start(name, DeckOf(wells), "20172", port);
    run->AskOneByOne();
    run->RunUntil(1);
    run->GetWellData(names);  // The simulator takes its time for the first.
    milliseconds best{10'000};
    std::vector<master::WellData> said;
    for (int i = 0; i < 3; ++i) {
      const auto begun = std::chrono::steady_clock::now();
      said = run->GetWellData(names);
      best = std::min(
          best, std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - begun));
    }
    run->Shutdown();
    return std::pair(said, best);
  };
  const auto [said, local] = fetch("LOCAL", wells, 0);
  const DelayingRelay relay(door.serving().port(), kOneWay);
  const auto gate = door.Connect(door.alice(), {}, relay.port());
  const auto [heard, far] = fetch("FAR", wells, gate->port());
  EXPECT_TRUE(heard == said);
  std::cout << wells << " wells: " << local.count() << " ms beside the daemon, " << far.count()
            << " ms over the link\n";
  // Other programs run on this machine, too; without reading ahead it would be seconds.
  EXPECT_LT(far, local * 3 / 2 + 4 * kOneWay + milliseconds(250));
  const DelayingRelay other(door.serving().port(), kOneWay);
  const auto plain = door.Connect(door.alice(), {"--no-ahead"}, other.port());
  const auto [asked, one_by_one] = fetch("ASKED", few, plain->port());
  EXPECT_TRUE(std::ranges::equal(asked, std::span(said).first(few)));
  EXPECT_GT(one_by_one, few * 2 * kOneWay);
}

TEST(GateNetworkTest, MemoryAndDescriptorsAreFlatOverResumptions) {
  constexpr int kLinks = 20;
  const int rounds = kFullSize ? 500 : 15;
  EchoDaemon daemon;
  Door door(daemon.port());
  BreakingRelay relay(door.serving().port());
  const auto gate = door.Connect(door.alice(), {"--longest-pause=0.02"}, relay.port());
  std::vector<Descriptor> links;
  links.reserve(kLinks);
  for (int i = 0; i < kLinks; ++i) links.push_back(Admitted(gate->port()));
  const std::string bytes = RandomBytes(50'000);
  const pid_t gates[] = {door.serving().pid(), gate->pid()};
  const auto round = [&] {
    relay.Cut();
    for (const Descriptor& link : links) ASSERT_TRUE(IsEchoed(link, bytes));
  };
  for (int i = 0; i < 5; ++i) round();
  long memory[2];
  std::size_t descriptors[2];
  for (int i = 0; i < 2; ++i) {
    memory[i] = StatusValue(gates[i], "VmRSS");
    descriptors[i] = OpenDescriptors(gates[i]);
  }
  for (int i = 0; i < rounds; ++i) round();
  EXPECT_GE(relay.count(), kLinks * (rounds + 6));
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(kSanitized || StatusValue(gates[i], "VmRSS") < memory[i] + 1024) << i;
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors(gates[i]) <= descriptors[i]; })) << i;
    std::cout << kLinks * rounds << " resumptions: " << memory[i] << " KiB before, "
              << StatusValue(gates[i], "VmRSS") << " KiB after\n";
  }
}

// A laptop that is closed and opened: the process stands still, the other end gives the connection
// up.
TEST(GateNetworkTest, GateThatHasSleptGoesOn) {
  EchoDaemon daemon;
  Door door(daemon.port(), {"--silence=1"});
  const auto gate = door.Connect(door.alice(), {"--silence=1"});
  const Descriptor link = Admitted(gate->port());
  kill(gate->pid(), SIGSTOP);
  door.serving().Await("broken");
  WriteAll(link.get(), "said in its sleep");
  kill(gate->pid(), SIGCONT);
  EXPECT_EQ(ReadExactly(link.get(), 17), "said in its sleep");
  EXPECT_EQ(gate->Lines("resumed").size(), 1U);
}

TEST(GateNetworkTest, SecondsOfDelayBreakNothing) {
  EchoDaemon daemon;
  Door door(daemon.port());
  const DelayingRelay relay(door.serving().port(), milliseconds(1200));
  const auto gate = door.Connect(door.alice(), {"--silence=8"}, relay.port());
  const Descriptor link = Admitted(gate->port());
  EXPECT_TRUE(IsEchoed(link, RandomBytes(2 << 20)));
  EXPECT_EQ(gate->Lines("broken").size(), 0U);
}

// Runs `trial` in a network of its own, where packets can be dropped.
void InNetwork(const std::function<void()>& trial) {
  if (system("nft --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "There is no nft";
  const auto said = InPrivateNetwork([&]() -> std::string {
    trial();
    return testing::Test::HasFailure() ? "failed" : "";
  });
  if (!said) GTEST_SKIP() << "The system permits no network of its own";
  EXPECT_EQ(*said, "");
}

void Shell(const std::string& command) {
  if (system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

// What happens to the packets between the gates.
void Filter(int port, const std::string& what) {
  Shell(
      "nft 'flush ruleset; add table inet t; add chain inet t in { type filter hook input "
      "priority 0; }; add rule inet t in tcp dport " +
      std::to_string(port) + " " + what + "; add rule inet t in tcp sport " + std::to_string(port) +
      " " + what + "'");
}

TEST(GateNetworkTest, DroppedPacketsAreABreakAndNothingIsLost) {
  InNetwork([] {
    EchoDaemon daemon;
    Door door(daemon.port(), {"--silence=2"});
    const auto gate =
        door.Connect(door.alice(), {"--silence=2", "--longest-pause=0.1", "--attempt-wait=1"});
    const Descriptor link = Admitted(gate->port());
    for (std::size_t i = 1; i <= 2; ++i) {
      Filter(door.serving().port(), "drop");
      WriteAll(link.get(), "said into silence");
      EXPECT_THAT(gate->Await("broken", i).dump(), HasSubstr("silent"));
      door.serving().Await("broken", i);
      Shell("nft flush ruleset");
      EXPECT_EQ(ReadExactly(link.get(), 17), "said into silence");
    }
    EXPECT_TRUE(IsEchoed(link, RandomBytes(100'000)));
  });
}

// A connection closed with bytes unread is reset, which its other end may find when it writes.
TEST(GateNetworkTest, DaemonThatLeavesWithRequestsUnreadIsHeardToItsEnd) {
  const Descriptor listener = BindFreePort(1);
  const int few = 65536;  // bytes, so that the gate soon awaits room
  setsockopt(listener.get(), SOL_SOCKET, SO_RCVBUF, &few, sizeof(few));
  Door door(PortOf(listener.get()));
  const auto gate = door.Connect(door.alice());
  const Descriptor link = ConnectToLoopback(gate->port());
  Descriptor daemon(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  WriteAll(daemon.get(), Frame("3"));
  std::thread writer([&] { WriteAll(link.get(), Handshake() + std::string(32 << 20, 'x')); });
  door.serving().Await("admitted");
  EXPECT_EQ(ReadExactly(link.get(), 5), Frame("3"));
  std::this_thread::sleep_for(milliseconds(100));  // until there is no room
  kill(door.serving().pid(), SIGSTOP);
  WriteAll(daemon.get(), "the last words");
  daemon = Descriptor();
  kill(door.serving().pid(), SIGCONT);
  EXPECT_EQ(ReadExactly(link.get(), 100), "the last words");
  writer.join();
  EXPECT_EQ(door.serving().Await("ended")["bytes_to_master"], 19);
}

// Sockets that hold next to nothing: both handshakes, a long request and what follows pass in
// parts.
TEST(GateNetworkTest, SmallestBuffersOfTheSystemLoseNothing) {
  InNetwork([] {
    Shell("ip link set lo mtu 1500");
    for (const char* buffers : {"tcp_rmem", "tcp_wmem"}) {
      std::ofstream(std::string("/proc/sys/net/ipv4/") + buffers) << "4096 4096 4096\n";
    }
    EchoDaemon daemon;
    Door door(daemon.port());
    std::string others;  // As many certificates as a file may have.
    for (int i = 0; i < 50; ++i) others += door.directory().Read("authority.pem");
    for (const char* file : {"server.pem", "alice.pem"}) {
      door.directory().Write(file, door.directory().Read(file) + others);
    }
    door.Restart(daemon.port(), {});
    const auto gate = door.Connect(door.alice());
    std::string request;
    for (const std::string& line :
         {std::string("3"), std::string("0"), std::string(30000, 'a'), std::string(30000, 'b'),
          std::string("1"), std::string("20172"), std::string("alice"), std::string("0")}) {
      request += Frame(line);
    }
    // The daemon takes nothing until the master has been let in and has said its end.
    const auto ask = [&](const Descriptor& link) {
      daemon.StopReading();
      const std::size_t before = door.serving().Lines("admitted").size();
      WriteAll(link.get(), request);
      shutdown(link.get(), SHUT_WR);
      door.serving().Await("admitted", before + 1);
      EXPECT_EQ(ReadExactly(link.get(), 5), Frame("3"));  // said when the daemon took the link
    };
    const Descriptor ending = ConnectToLoopback(gate->port());
    ask(ending);
    daemon.ReadOn();
    EXPECT_TRUE(ReadExactly(ending.get(), 1 << 20) == request);
    const Descriptor talking = Admitted(gate->port());
    EXPECT_TRUE(IsEchoed(talking, RandomBytes(300'000)));
    // A daemon that goes with half of the request unread takes its own link with it alone.
    const Descriptor lost = ConnectToLoopback(gate->port());
    ask(lost);
    daemon.HangUp();
    EXPECT_EQ(ReadExactly(lost.get(), 100), "");
    door.serving().Await("ended", 2);
    daemon.ReadOn();
    EXPECT_TRUE(IsEchoed(Admitted(gate->port()), RandomBytes(1000)));
    EXPECT_EQ(gate->Lines("broken").size(), 0U);
  });
}

TEST(GateNetworkTest, RandomLossCostsTimeAlone) {
  InNetwork([] {
    Shell("ip link set lo mtu 1500");
    EchoDaemon daemon;
    Door door(daemon.port());
    const auto gate = door.Connect(door.alice());
    const Descriptor link = Admitted(gate->port());
    Filter(door.serving().port(), "numgen random mod 100 lt 10 counter drop");
    EXPECT_TRUE(IsEchoed(link, RandomBytes(kFullSize ? 16 << 20 : 4 << 20)));
    Shell("nft list ruleset | grep -q 'packets [1-9]'");  // some have been
  });
}

TEST(GateNetworkTest, ChangedAddressIsTheSameLink) {
  InNetwork([] {
    EchoDaemon daemon;
    Door door(daemon.port(), {"--silence=2"});
    // The address from which the serving gate is reached, and nothing else is.
    Shell(
        "ip rule add pref 10 lookup local; ip rule del pref 0; ip rule add pref 1 ipproto tcp "
        "dport " +
        std::to_string(door.serving().port()) + " lookup 100");
    const auto come_from = [](const std::string& address) {
      Shell("ip address add " + address + "/32 dev lo");
      Shell("ip route replace local 127.0.0.1 dev lo src " + address + " table 100");
    };
    come_from("10.9.0.1");
    const auto gate = door.Connect(door.alice(), {"--silence=2", "--attempt-wait=1"});
    const Descriptor link = Admitted(gate->port());
    EXPECT_THAT(door.serving().Await("begun")["peer"], HasSubstr("10.9.0.1"));
    come_from("10.9.0.2");
    Shell("ip address del 10.9.0.1/32 dev lo");
    EXPECT_TRUE(IsEchoed(link, RandomBytes(100'000)));
    EXPECT_THAT(door.serving().Await("resumed")["peer"], HasSubstr("10.9.0.2"));
  });
}

}  // namespace
