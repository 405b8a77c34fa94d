#include "inspect/port.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/listener.h"
#include "inspect/runs.h"
#include "tests/inspect/own_view.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"

namespace inspect {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

Site SiteOn(int port) {
  return SiteOf({"-p", std::to_string(port)}, "/none/vkjobmill.exe");
}

TEST(PortTest, FreePortIsGood) {
  EXPECT_THAT(CheckPort(SiteOn(FreePort())), IsEmpty());
}

TEST(PortTest, ProgramThatListensIsNamed) {
  const Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  const Findings findings = CheckPort(SiteOn(port));
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].id, "port.taken");
  EXPECT_EQ(findings[0].severity, Severity::kError);
  EXPECT_EQ(findings[0].what, "process " + std::to_string(getpid()) +
                                  " (inspect_test) listens on port " + std::to_string(port));
}

// The daemon listens on IPv4 alone.
TEST(PortTest, ProgramThatListensOnAnAddressOfIpv6LeavesThePortFree) {
  const int port = FreePort();
  const auto listen_on = [port](const in6_addr& address) {
    Descriptor listener(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 place{};
    place.sin6_family = AF_INET6;
    place.sin6_port = htons(static_cast<std::uint16_t>(port));
    place.sin6_addr = address;
    const bool bound =
        bind(listener.get(), reinterpret_cast<sockaddr*>(&place), sizeof(place)) == 0;
    if (!bound || listen(listener.get(), 1) != 0) listener.Reset();
    return listener;
  };
  {
    const Descriptor loopback = listen_on(in6addr_loopback);
    if (!loopback) GTEST_SKIP() << "this machine has no IPv6";
    EXPECT_THAT(CheckPort(SiteOn(port)), IsEmpty());
  }
  const Descriptor all = listen_on(in6addr_any);
  EXPECT_EQ(CheckPort(SiteOn(port)).size(), 1U) << "this one takes those of IPv4 as well";
}

TEST(PortTest, ConnectionWithoutAListenerHoldsThePort) {
  Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  Descriptor near = ConnectToLoopback(port);
  Descriptor far(accept(listener.get(), nullptr, nullptr));
  listener.Reset();
  Findings findings = CheckPort(SiteOn(port));
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].id, "port.held");
  EXPECT_THAT(findings[0].what, HasSubstr(", process " + std::to_string(getpid()) + " "));
  // The side that closes first has it for a minute.
  far.Reset();
  near.Reset();
  EXPECT_TRUE(Eventually([&] {
    findings = CheckPort(SiteOn(port));
    return findings.size() == 1 &&
           findings[0].what.find(" that has ended, for another ") != std::string::npos;
  }));
}

TEST(PortTest, ConnectionsThatHaveEndedAreOneFinding) {
  Descriptor listener = BindFreePort(3);
  const int port = PortOf(listener.get());
  for (int i = 0; i < 3; ++i) {
    Descriptor near = ConnectToLoopback(port);
    Descriptor far(accept(listener.get(), nullptr, nullptr));
    far.Reset();
    near.Reset();
  }
  listener.Reset();
  EXPECT_TRUE(Eventually([&] {
    const Findings findings = CheckPort(SiteOn(port));
    return findings.size() == 1 &&
           findings[0].what.find(" is held by 3 connections that have ended, ") !=
               std::string::npos;
  }));
}

TEST(PortTest, DaemonItselfIsGoodUntilItsProgramIsReplaced) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  const RunningDaemon daemon(options);
  EXPECT_THAT(CheckPort(SiteOn(daemon.port())), IsEmpty());
  std::filesystem::remove(daemon.directory().File("vkjobmill.exe"));
  const Findings findings = CheckPort(SiteOn(daemon.port()));
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].id, "port.older-daemon");
}

TEST(PortTest, StoppedDaemonIsFound) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  RunningDaemon daemon(options);
  daemon.process().Signal(SIGSTOP);
  EXPECT_TRUE(Eventually([&] {
    const Findings findings = CheckPort(SiteOn(daemon.port()));
    return findings.size() == 1 && findings[0].id == "port.stopped-daemon";
  }));
  daemon.process().Signal(SIGCONT);
  EXPECT_TRUE(Eventually([&] { return CheckPort(SiteOn(daemon.port())).empty(); }));
}

Site SiteWithCommsPorts(int first, int count) {
  return SiteOf({"-p", "1", "-o", std::to_string(first), "-n", std::to_string(count)},
                "/none/vkjobmill.exe");
}

TEST(CommsPortsTest, ProgramThatHasSomeOfThemIsNamed) {
  const Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  const Findings findings = CheckCommsPorts(SiteWithCommsPorts(port, 100));
  const std::string self = "process " + std::to_string(getpid()) + " (inspect_test)";
  const auto own = std::ranges::find_if(findings, [&](const auto& finding) {
    return finding.id == "port.comms-taken" && finding.what.ends_with(self);
  });
  ASSERT_NE(own, findings.end());
  EXPECT_EQ(own->what, "comms port " + std::to_string(port) + " is taken by " + self);
  EXPECT_EQ(own->severity, Severity::kWarning);
}

TEST(CommsPortsTest, NoneThatIsFreeIsAnError) {
  // Two neighbours, both taken.
  Descriptor first;
  Descriptor second;
  for (int attempt = 0; attempt < 100 && !second; ++attempt) {
    first = BindFreePort(1);
    second = TryToBind(PortOf(first.get()) + 1, 1);
  }
  ASSERT_TRUE(second);
  const Findings findings = CheckCommsPorts(SiteWithCommsPorts(PortOf(first.get()), 2));
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].id, "port.no-comms");
  EXPECT_EQ(findings[0].severity, Severity::kError);
}

TEST(CommsPortsTest, FreePortsAreGood) {
  const int port = FreePort();
  for (const Finding& finding : CheckCommsPorts(SiteWithCommsPorts(port, 2))) {
    EXPECT_EQ(finding.what.find("port " + std::to_string(port) + " "), std::string::npos);
  }
}

TEST(CommsPortsTest, DaemonWithoutAFileThatHandsOutTheSameIsNamed) {
  RunningDaemon::Options options;
  options.arguments = {"-u", "-o", "40001", "-n", "10"};
  const RunningDaemon daemon(options);
  const auto shared = [&](int first) {
    const Findings findings = CheckCommsPorts(SiteWithCommsPorts(first, 10));
    return std::ranges::any_of(findings, [&](const Finding& finding) {
      return finding.id == "port.comms-shared" &&
             finding.what.find("process " + std::to_string(daemon.pid()) + ", ") !=
                 std::string::npos;
    });
  };
  EXPECT_TRUE(shared(40010));
  EXPECT_FALSE(shared(40011));
  EXPECT_FALSE(shared(39991));
}

// Listeners of this process, on free ports.
std::vector<Descriptor> Listeners(std::size_t count) {
  std::vector<Descriptor> listeners;
  for (std::size_t i = 0; i < count; ++i) listeners.push_back(BindFreePort(1));
  return listeners;
}

std::set<int> PortsOf(const std::vector<Descriptor>& listeners) {
  std::set<int> ports;
  for (const Descriptor& listener : listeners) ports.insert(PortOf(listener.get()));
  return ports;
}

TEST(PortTest, OnlyAFewOfThoseWhoHoldItAreNamed) {
  Descriptor listener = BindFreePort(5);
  const int port = PortOf(listener.get());
  std::vector<Descriptor> ends;
  for (int i = 0; i < 4; ++i) {
    ends.push_back(ConnectToLoopback(port));
    ends.emplace_back(accept(listener.get(), nullptr, nullptr));
  }
  listener.Reset();
  EXPECT_EQ(CheckPort(SiteOn(port)).size(), 3U);
}

TEST(PortTest, ConnectionThatTheOtherSideHasNotEndedIsNoProcesss) {
  Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  const Descriptor near = ConnectToLoopback(port);
  Descriptor far(accept(listener.get(), nullptr, nullptr));
  listener.Reset();
  far.Reset();
  EXPECT_TRUE(Eventually([&] {
    const Findings findings = CheckPort(SiteOn(port));
    return findings.size() == 1 && findings[0].what.ends_with(", no process");
  }));
}

TEST(PortTest, ListenerOfAnotherAccountIsRootsToSee) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  const std::string found = AsNobody([&] {
    close(listener.get());  // which only the test itself has then
    const Findings findings = CheckPort(SiteOn(port));
    return findings.at(0).id + ": " + findings[0].what;
  });
  EXPECT_EQ(found, "port.unchecked: a process that only root can see listens on port " +
                       std::to_string(port));
}

TEST(PortTest, SocketsThatCannotBeReadAreSaid) {
  EXPECT_EQ(WithAnsweredCall(
                SYS_socket, []() -> long { return -EACCES; },
                [] { return CheckPort(SiteOn(5000)).at(0).what; }),
            "the sockets of this machine are not known: Permission denied");
}

TEST(ListenerTest, OnlyADaemonIsOne) {
  const Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  EXPECT_FALSE(DaemonOn(port));
  EXPECT_FALSE(OwnerOf(TcpSocket()));
  if (geteuid() != 0) return;
  EXPECT_EQ(AsNobody([&] {
              close(listener.get());  // which only the test itself has then
              return std::string(DaemonOn(port) ? "daemon" : "nobody known");
            }),
            "nobody known");
}

TEST(CommsPortsTest, OnlyAFewOfManyAreShown) {
  const std::vector<Descriptor> listeners = Listeners(7);
  const std::set<int> ports = PortsOf(listeners);
  const int first = *ports.begin();
  std::string shown;
  for (const int port : ports) {
    if (port != *std::next(ports.begin(), 5)) {
      shown += (shown.empty() ? "" : ", ") + std::to_string(port);
    } else {
      break;
    }
  }
  const Findings findings = CheckCommsPorts(SiteWithCommsPorts(first, *ports.rbegin() - first + 1));
  const std::string self = "process " + std::to_string(getpid()) + " (inspect_test)";
  const auto own = std::ranges::find_if(
      findings, [&](const auto& finding) { return finding.what.ends_with(self); });
  ASSERT_NE(own, findings.end());
  EXPECT_EQ(own->what, "comms ports " + shown + " and 2 others are taken by " + self);
}

TEST(CommsPortsTest, ConnectionsThatHaveEndedTakeNone) {
  Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  Descriptor near = ConnectToLoopback(port);
  Descriptor far(accept(listener.get(), nullptr, nullptr));
  far.Reset();
  near.Reset();
  listener.Reset();
  for (const Finding& finding : CheckCommsPorts(SiteWithCommsPorts(port, 1))) {
    EXPECT_NE(finding.id, "port.no-comms") << finding.what;
  }
}

TEST(CommsPortsTest, OfSeveralWhoTakeThemOneIsNamed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  // As an account that sees nobody's ports but its own.
  for (int attempt = 0; attempt < 20; ++attempt) {
    const Descriptor others = BindFreePort(1);
    const int port = PortOf(others.get());
    const std::string found = AsNobody([&] {
      close(others.get());  // which only the test itself has then
      const Descriptor own = TryToBind(port + 1, 1);
      if (!own) return std::string("taken");
      const Findings findings = CheckCommsPorts(SiteWithCommsPorts(port, 2));
      return findings.empty() ? std::string() : findings.back().what;
    });
    if (found == "taken") continue;
    EXPECT_THAT(found, HasSubstr("every comms port is taken, from "));
    EXPECT_THAT(found, testing::EndsWith(" and others"));
    return;
  }
  FAIL() << "no two ports beside each other";
}

// Who cannot see whose a socket is knows the run that was given its port, and the run's account.
TEST(CommsPortsTest, PortOfARunIsNotTakenUnlessAnotherAccountHasIt) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const PortBlock comms;
  const int port = comms.first();
  const Descriptor bound = BindPort(port);
  RunningDaemon::Options options;
  options.arguments = {"-u", "-o", std::to_string(port), "-n", "1"};
  options.script = "#!/bin/sh\nsleep 1000\n";
  const RunningDaemon daemon(options);
  TestMaster master(daemon.port());
  master.RequestRun({});
  ASSERT_TRUE(daemon.WaitForLog("Arg 5: " + std::to_string(port)));
  ASSERT_EQ(listen(bound.get(), 1), 0);
  const auto found = [&] {
    return AsNobody([&] {
      close(bound.get());  // which only the test itself has then
      std::string all;
      for (const Finding& finding : CheckCommsPorts(SiteWithCommsPorts(port, 2))) {
        if (finding.id == "port.comms-taken") all += finding.what;
      }
      return all;
    });
  };
  EXPECT_TRUE(Eventually([&] { return found().empty(); })) << found();
  ASSERT_EQ(fchown(bound.get(), 1, 1), 0);
  EXPECT_EQ(found(),
            "comms port " + std::to_string(port) + " is taken by a process that only root can see");
}

TEST(CommsPortsTest, MasterThatHasNotAskedForARunYetHasNone) {
  const Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  RunningDaemon::Options options;
  options.arguments = {"-u", "-o", std::to_string(port), "-n", "100"};
  const RunningDaemon daemon(options);
  TestMaster master(daemon.port());
  ASSERT_NE(master.Receive(), "");
  EXPECT_TRUE(std::ranges::any_of(FindRuns().runs, [&](const inspect::Run& run) {
    return run.daemon == daemon.pid() && !run.comms_port;
  }));
  const Findings findings = CheckCommsPorts(SiteWithCommsPorts(port, 100));
  EXPECT_TRUE(std::ranges::any_of(findings, [&](const Finding& finding) {
    return finding.id == "port.comms-taken" &&
           finding.what == "comms port " + std::to_string(port) + " is taken by process " +
                               std::to_string(getpid()) + " (inspect_test)";
  }));
}

TEST(CommsPortsTest, ClustersHaveThemElsewhere) {
  const TemporaryDirectory directory;
  const std::string script =
      directory.Write("slurm", "#!/bin/bash\nneeded='x'\nsource \"$here/common.sh\"\n");
  const Descriptor listener = BindFreePort(1);
  const std::string port = std::to_string(PortOf(listener.get()));
  const auto found = [&](const std::string& file) {
    return CheckCommsPorts(
               SiteOf({"-p", "1", "-o", port, "-n", "1", "-s", file}, "/none/vkjobmill.exe"))
        .size();
  };
  EXPECT_EQ(found(script), 0U);
  EXPECT_EQ(found("/none"), 1U);
}

TEST(CommsPortsTest, DaemonsThatAFileTellsOfAreJudgedByIt) {
  RunningDaemon::Options options;
  options.arguments = {"-u", "-o", "40101", "-n", "10"};
  const RunningDaemon daemon(options);
  const TemporaryDirectory directory;
  const auto shared = [&] {
    const Findings findings = CheckCommsPorts(
        SiteOf({"-p", "1", "-o", "40101", "-n", "10"}, "/none/vkjobmill.exe", directory.path()));
    return std::ranges::any_of(findings, [&](const Finding& finding) {
      return finding.what.find("process " + std::to_string(daemon.pid()) + ", ") !=
             std::string::npos;
    });
  };
  directory.Write("notes", "OPTIONS='-p " + std::to_string(daemon.port()) + "'\n");
  EXPECT_TRUE(shared());
  directory.Write("two.conf", "OPTIONS='-p " + std::to_string(daemon.port()) + "'\n");
  EXPECT_FALSE(shared());
}

}  // namespace
}  // namespace inspect
