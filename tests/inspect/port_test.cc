#include "inspect/port.h"

#include <sys/socket.h>

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

}  // namespace
}  // namespace inspect
