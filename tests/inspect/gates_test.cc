#include "inspect/gates.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "base/descriptor.h"
#include "inspect/runs.h"
#include "tests/support/ports.h"
#include "tests/support/private_network.h"
#include "tests/support/running_daemon.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

constexpr double kNow = 1000000;

std::string Document(const std::string& time, const std::string& running = "true") {
  return R"({"schema":1,"time":)" + time + R"(,"running":)" + running +
         R"(,"daemon":"127.0.0.1:5000","most_links":2000,"arriving":1,
            "counts":{"links":3,"denied":1},
            "revocation_lists":[{"file":"a","issuer":"b","next_update":2000},
                                {"file":"c","issuer":"d","next_update":1500}],
            "links":[{"daemon_port":40000,"peer":"192.0.2.7:50000","claimed":"alice",
                      "proof":"upn:alice@example.com","broken_seconds":null},
                     {"daemon_port":40001,"peer":"192.0.2.8:50000","broken_seconds":4.5}]})";
}

class GatesTest : public testing::Test {
 protected:
  std::vector<Gate> Read() const { return ReadGates(directory_.path().string(), kNow); }
  TemporaryDirectory directory_;
};

TEST_F(GatesTest, DocumentIsReadWhole) {
  directory_.Write("a.json", Document("999990"));
  const auto gates = Read();
  ASSERT_EQ(gates.size(), 1U);
  EXPECT_EQ(gates[0].daemon_port, 5000);
  EXPECT_EQ(gates[0].counts.at("links"), 3);
  EXPECT_EQ(gates[0].list_expires, 1500);
  ASSERT_EQ(gates[0].links.size(), 2U);
  EXPECT_EQ(gates[0].links[0].proof, "upn:alice@example.com");
  EXPECT_FALSE(gates[0].links[0].broken);
  EXPECT_EQ(gates[0].links[1].proof, "");
  EXPECT_TRUE(gates[0].links[1].broken);
}

TEST_F(GatesTest, LinkIsFoundByBothPorts) {
  directory_.Write("a.json", Document("999990"));
  const auto gates = Read();
  ASSERT_NE(FindLink(gates, 40001, 5000), nullptr);
  EXPECT_EQ(FindLink(gates, 40001, 5000)->peer, "192.0.2.8:50000");
  EXPECT_EQ(FindLink(gates, 40001, 5001), nullptr);
  EXPECT_EQ(FindLink(gates, 40002, 5000), nullptr);
}

TEST_F(GatesTest, OldAndEndedGatesAndOtherFilesAreLeftOut) {
  directory_.Write("old.json", Document("999960"));
  directory_.Write("ended.json", Document("999990", "false"));
  directory_.Write("text.json", "nonsense");
  directory_.Write("other.json", "{\"schema\":1}");
  directory_.Write("types.json", R"({"time":"now","running":true,"links":[{"daemon_port":"x"}]})");
  directory_.Write("a.txt", Document("999990"));
  EXPECT_TRUE(Read().empty());
  EXPECT_TRUE(ReadGates(directory_.File("none"), kNow).empty());
}

// Nobody but the gate's account may say what its masters have proven.
TEST_F(GatesTest, FileThatAnotherMayHaveWrittenIsLeftOut) {
  const std::string file = directory_.Write("a.json", Document("999990"));
  ASSERT_EQ(chmod(file.c_str(), 0646), 0);
  EXPECT_TRUE(Read().empty());
  ASSERT_EQ(chmod(file.c_str(), 0640), 0);
  EXPECT_EQ(Read().size(), 1U);
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  ASSERT_EQ(chown(file.c_str(), 12345, 12345), 0);
  EXPECT_TRUE(Read().empty());
}

TEST_F(GatesTest, ValuesThatNoGateHasAreLeftOut) {
  const auto is_read = [&](const std::string& what, const std::string& instead) {
    std::string text = Document("999990");
    text.replace(text.find(what), what.size(), instead);
    directory_.Write("a.json", text);
    return Read().size() == 1;
  };
  EXPECT_TRUE(is_read(R"("schema":1)", R"("schema": 1)"));
  EXPECT_FALSE(is_read(R"("schema":1)", R"("schema":2)"));
  EXPECT_FALSE(is_read(":40000,", ":1e300,"));
  EXPECT_FALSE(is_read(":40000,", ":4295007296,"));  // 2^32 more
  EXPECT_FALSE(is_read(":40000,", ":-25536,"));
  EXPECT_FALSE(is_read(R"("denied":1)", R"("denied":-1)"));
  EXPECT_FALSE(is_read(R"("denied":1)", R"("denied":18446744073709551615)"));
  EXPECT_FALSE(is_read(R"("arriving":1)", R"("arriving":0.5)"));
  EXPECT_FALSE(is_read("999990", "1000031"));  // it has not been written yet
}

// A master of the network may have the port of a gate's link.
TEST_F(GatesTest, OnlyMastersOfThisMachineHaveComeThroughAGate) {
  const auto found = InPrivateNetwork([&]() -> std::string {
    ifreq request{};
    strcpy(request.ifr_name, "lo:1");
    auto& own = reinterpret_cast<sockaddr_in&>(request.ifr_addr);
    own.sin_family = AF_INET;
    inet_pton(AF_INET, "192.0.2.9", &own.sin_addr);
    const Descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (ioctl(any.get(), SIOCSIFADDR, &request) != 0) return "no address";
    RunningDaemon::Options options;
    options.arguments = {"-u"};
    const RunningDaemon daemon(options);
    const auto gate_of_master_at = [&](const char* address) {
      const Descriptor master(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      own.sin_port = htons(static_cast<std::uint16_t>(daemon.port()));
      inet_pton(AF_INET, address, &own.sin_addr);
      if (connect(master.get(), &request.ifr_addr, sizeof(request.ifr_addr)) != 0) {
        return std::string("no link");
      }
      std::string document = Document(std::to_string(time(nullptr)));
      for (const auto& [from, to] :
           {std::pair(5000, daemon.port()), {40001, PortOf(master.get())}}) {
        const std::string text = std::to_string(from);
        document.replace(document.find(text), text.size(), std::to_string(to));
      }
      directory_.Write("a.json", document);
      std::string gate = "no run";
      Eventually([&] {
        for (const inspect::Run& run : FindRuns(directory_.path().string()).runs) {
          if (run.daemon != daemon.pid() || !run.master) continue;
          if (run.master->port != PortOf(master.get())) continue;
          gate = run.gate.value_or("none") + ", " + run.proven.value_or("nothing proven");
        }
        return gate != "no run";
      });
      return gate;
    };
    return gate_of_master_at("127.0.0.1") + "; " + gate_of_master_at("192.0.2.9");
  });
  if (!found || *found == "no address") GTEST_SKIP() << "no network of its own here";
  EXPECT_EQ(*found, "192.0.2.8:50000, nothing proven; none, nothing proven");
}

TEST_F(GatesTest, FileThatIsTooLongIsNotRead) {
  directory_.Write("a.json", Document("999990") + std::string(std::size_t{16} << 20, ' '));
  EXPECT_TRUE(Read().empty());
}

}  // namespace
}  // namespace inspect
