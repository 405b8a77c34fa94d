#include "inspect/port.h"

#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"

namespace inspect {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

Site SiteOn(int port) {
  return SiteOf({"-p", std::to_string(port)}, "/none/vkjobmill.exe");
}

Descriptor ConnectTo(int port) {
  Descriptor near(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(near.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  return near;
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

TEST(PortTest, ConnectionWithoutAListenerHoldsThePort) {
  Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  Descriptor near = ConnectTo(port);
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
    Descriptor near = ConnectTo(port);
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
    Descriptor next(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(PortOf(first.get()) + 1));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(next.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(next.get(), 1) == 0) {
      second = std::move(next);
    }
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

}  // namespace
}  // namespace inspect
