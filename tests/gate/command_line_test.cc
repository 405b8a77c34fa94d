// The program vkgate: its command line, its log and its signals.

#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/gate/door.h"
#include "tests/gate/echo_daemon.h"
#include "tests/support/bytes.h"
#include "tests/support/ports.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using Words = std::vector<std::string>;

// Each test builds the command lines of its gates from the files of a Door.
class VkgateTest : public testing::Test {
 protected:
  Words WithFiles(Words words, const Identity& identity, const Words& more = {}) {
    words.insert(words.end(), {"--certificate=" + identity.certificate, "--key=" + identity.key,
                               "--authority=" + door_.authority().file()});
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }
  Words Serve(const Words& more = {}, const std::string& listen = "127.0.0.1:0") {
    return WithFiles(
        {"serve", "--listen=" + listen, "--to=127.0.0.1:" + std::to_string(daemon_.port())},
        door_.server(), more);
  }
  Words Connect(const std::string& to, const Words& more = {},
                const std::string& listen = "127.0.0.1:0") {
    return WithFiles({"connect", "--listen=" + listen, "--to=" + to}, door_.alice(), more);
  }
  std::string File(const std::string& name) { return door_.directory().File(name); }
  std::string Read(const std::string& name) { return door_.directory().Read(name); }

  // What a master that claims to be `user` is told at this port after the greeting.
  static std::string Told(int port, const std::string& user = "alice") {
    const Descriptor link = ConnectToLoopback(port);
    WriteAll(link.get(), Handshake(user));
    if (ReadExactly(link.get(), 5) != Frame("3")) return "no greeting";
    const auto length = NumberAt<std::uint32_t>(ReadExactly(link.get(), 4));
    return ReadExactly(link.get(), length);
  }

  EchoDaemon daemon_;
  Door door_{daemon_.port()};
};

TEST_F(VkgateTest, CommandLineIsJudged) {
  struct Row {
    Words words;
    int status;
    std::string out;
    std::string err;
  };
  for (const Row& row :
       {Row{{"--version"}, 0, "vkgate ", ""},
        {{"serve", "--help"}, 0, "--links-of-one", ""},
        {{}, 2, "", "A subcommand is required"},
        {{"serve"}, 2, "", "--listen is required"},
        {Serve({"--links=0"}), 2, "", "--links"},
        {Serve({}, "nonsense"), 2, "", "vkgate: 'nonsense' is no HOST:PORT"},
        {Connect("::1:5000"), 2, "", "vkgate: '::1:5000' is no HOST:PORT"},
        {Serve({"--users=/nonexistent"}), 1, "", "vkgate: /nonexistent: cannot be read"},
        {Serve({"--log=/nonexistent/log"}), 1, "",
         "vkgate: /nonexistent/log: No such file or directory"},
        {Connect("127.0.0.1:1", {}, "0.0.0.0:0"), 1, "",
         "vkgate: 0.0.0.0: masters are taken on a loopback address alone"},
        {{"--complete", "ser"}, 0, "serve\tStand in front of a daemon", ""},
        {{"--complete", "connect", "--mas"}, 0, "--masters\tMasters at once", ""}}) {
    const Outcome outcome = RunProgram("vkgate", row.words);
    const std::string words = testing::PrintToString(row.words);
    EXPECT_EQ(outcome.status, row.status) << words;
    EXPECT_THAT(outcome.out, HasSubstr(row.out)) << words;
    EXPECT_THAT(outcome.err, HasSubstr(row.err)) << words;
    EXPECT_EQ(outcome.err.empty(), row.err.empty()) << words << outcome.err;
  }
}

// Which names may be claimed is the first thing that an administrator may get wrong.
TEST_F(VkgateTest, WithoutUsersACertificatesOwnNamesMayBeClaimedAlone) {
  {
    const RunningGate serving(Serve(), File("names.log"));
    EXPECT_EQ(
        Read("names.log.errors"),
        "vkgate: without --users a master may claim only the very names in its certificate\n");
    const auto gate = door_.Connect(door_.alice(), {}, serving.port());
    EXPECT_THAT(Told(gate->port()), StartsWith("Windows user 'alice' is not proven"));
    EXPECT_THAT(Told(gate->port(), "somebody"), StartsWith("Windows user 'somebody' is not"));
    EXPECT_EQ(Told(gate->port(), "alice@example.com"), "3");  // the echo of its request
  }
  const RunningGate serving(Serve({"--common-name"}), File("common.log"));
  EXPECT_EQ(Read("common.log.errors"), "");
  const auto gate = door_.Connect(door_.alice(), {}, serving.port());
  EXPECT_EQ(Told(gate->port(), "somebody"), "3");
  EXPECT_EQ(serving.Await("admitted")["proof"], "cn:somebody");
  EXPECT_FALSE(std::filesystem::exists(File("status.json.new")));
}

TEST_F(VkgateTest, RotatedLogIsLeftForANewOne) {
  for (const bool serve : {true, false}) {
    const std::string log = File(serve ? "own.log" : "other.log");
    const std::string to = "127.0.0.1:" + std::to_string(door_.serving().port());
    const RunningGate gate(serve ? Serve({"--log=" + log}) : Connect(to, {"--log=" + log}), log);
    std::filesystem::rename(log, log + ".1");
    kill(gate.pid(), SIGHUP);
    gate.Await("reloaded");
    EXPECT_THAT(gate.Lines("listening"), IsEmpty());
  }
}

TEST_F(VkgateTest, MasterBeyondTheLimitIsTold) {
  const auto gate = door_.Connect(door_.alice(), {"--masters=1"});
  {
    const Descriptor first = ConnectToLoopback(gate->port());
    EXPECT_EQ(ReadExactly(first.get(), 5), Frame("3"));
    EXPECT_EQ(Told(gate->port()), "There are too many masters at this gate");
    EXPECT_EQ(gate->Await("refused")["why"], "There are too many masters at this gate");
  }
  EXPECT_TRUE(Eventually([&] { return Told(gate->port()) == "3"; }));
}

TEST_F(VkgateTest, WhyNoServingGateIsReachedIsTold) {
  const std::string host(70, 'x');  // longer than a part of a name may be
  const RunningGate nowhere(Connect(host + ":5000"), File("nowhere.log"));
  EXPECT_THAT(Told(nowhere.port()), StartsWith("vkgate: " + host + ": "));
  const auto nobody = door_.Connect(door_.alice(), {"--server=" + std::string(300, 'x')});
  EXPECT_THAT(Told(nobody->port()), StartsWith("vkgate: TLS: "));
}

TEST_F(VkgateTest, ConnectingGateThatCannotReloadGoesOn) {
  const auto gate = door_.Connect(door_.alice());
  door_.directory().Write("alice.pem", "nonsense");
  kill(gate->pid(), SIGHUP);
  EXPECT_THAT(gate->Await("reload failed")["why"].get<std::string>(),
              StartsWith(door_.alice().certificate + ": is no certificate"));
  EXPECT_EQ(Told(gate->port()), "3");
}

TEST_F(VkgateTest, GatesSpeakIPv6) {
  const Descriptor bound(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  if (bind(bound.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    GTEST_SKIP() << "there is no IPv6";
  }
  const RunningGate serving(Serve({"--status=" + File("v6.json")}, "[::1]:0"), File("v6.log"));
  const std::string to = "[::1]:" + std::to_string(serving.port());
  const RunningGate gate(Connect(to, {"--server=127.0.0.1"}, "[::1]:0"), File("v6c.log"));
  const Descriptor master(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  address.sin6_port = htons(static_cast<std::uint16_t>(gate.port()));
  ASSERT_EQ(connect(master.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(ReadExactly(master.get(), 5), Frame("3"));
  EXPECT_THAT(serving.Await("begun")["peer"].get<std::string>(), StartsWith("[::1]:"));
  EXPECT_THAT(Read("v6.json"), HasSubstr(R"("listen":"[::1]:0")"));
  const RunningGate astray(Connect("[::1]:1", {}), File("astray.log"));
  EXPECT_THAT(Told(astray.port()),
              StartsWith("vkgate: The gate at [::1]:1 cannot be reached: Connection refused"));
}

// Connections that wait meanwhile are taken as soon as there are descriptors again.
TEST_F(VkgateTest, GateWithoutDescriptorsComesBack) {
  constexpr rlim_t kDescriptors = 40;
  const RunningGate serving(Serve({"--arriving-of-one=1000", "--arriving=1000",
                                   "--arrival-wait=100", "--status=" + File("few.json")}),
                            File("few.log"), [] {
                              const rlimit limit{kDescriptors, kDescriptors};
                              return setrlimit(RLIMIT_NOFILE, &limit);
                            });
  std::vector<Descriptor> silent;
  const auto exhaust = [&] {
    for (rlim_t i = 0; i < 2 * kDescriptors; ++i)
      silent.push_back(ConnectToLoopback(serving.port()));
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors(serving.pid()) >= kDescriptors; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the pause between two attempts
  };
  exhaust();
  silent.clear();
  const auto counts = [&] { return nlohmann::json::parse(Read("few.json"))["counts"]; };
  EXPECT_TRUE(Eventually([&] { return counts().value("accepts_failed", 0) > 0; }));
  const auto gate = door_.Connect(door_.alice(), {}, serving.port());
  EXPECT_TRUE(Eventually([&] { return Told(gate->port(), "alice@example.com") == "3"; }));
  exhaust();  // That does not keep it from its end.
}

TEST_F(VkgateTest, StatusThatCannotBeWrittenIsCounted) {
  const RunningGate serving(Serve({"--status=" + File("later/status.json")}), File("later.log"));
  std::filesystem::create_directory(File("later"));
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(File("later/status.json")); }));
  const auto status = nlohmann::json::parse(Read("later/status.json"));
  EXPECT_GE(status["counts"]["status_not_written"], 1);
  EXPECT_TRUE(status["running"]);
}

TEST_F(VkgateTest, ListsThatAreOldOrWillBeSoonAreToldOf) {
  constexpr long kDay = 86400;
  Authority& authority = door_.authority();
  const std::string old = authority.List("old.crl", -2 * kDay, -kDay);
  const std::string soon = authority.List("soon.crl", -kDay, 2 * kDay);
  const std::string young = authority.List("young.crl", -kDay, 30 * kDay);
  const RunningGate serving(Serve({"--revoked=" + old, "--revoked=" + soon, "--revoked=" + young,
                                   "--status=" + File("lists.json")}),
                            File("lists.log"));
  const auto told = serving.Lines("revocation list");
  ASSERT_THAT(told, SizeIs(2));
  EXPECT_EQ(told[0]["file"], old);
  EXPECT_EQ(told[0]["why"], "it is too old: nobody of this authority is let in");
  EXPECT_EQ(told[1]["file"], soon);
  EXPECT_EQ(told[1]["why"], "it will be too old soon");
  const auto lists = nlohmann::json::parse(Read("lists.json"))["revocation_lists"];
  ASSERT_THAT(lists, SizeIs(3));
  EXPECT_EQ(lists[2]["file"], young);
}

}  // namespace
