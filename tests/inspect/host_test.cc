#include "inspect/host.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/probe.h"
#include "tests/support/private_network.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::Contains;
using testing::Not;

class HostTest : public testing::Test {
 protected:
  void Write(const std::string& name, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(directory_.File(name)).parent_path());
    chmod(directory_.Write(name, text).c_str(), 0755);
  }

  // What is found with `script` in use, whatever this machine is like.
  std::set<std::string> Found(const std::string& script, const std::string& nodes = "") {
    Site site =
        SiteOf({"-p", "5000", "-s", directory_.File(script)}, directory_.File("vkjobmill.exe"));
    site.environment["PATH"] = directory_.path().string() + ":/usr/bin:/bin";
    site.environment["JOBMILL_NODES"] = nodes;
    std::set<std::string> ids;
    for (const Finding& finding : CheckHost(site)) {
      EXPECT_FALSE(finding.what.empty() || finding.consequence.empty() || finding.remedy.empty());
      ids.insert(finding.id);
    }
    return ids;
  }

  TemporaryDirectory directory_;
};

TEST_F(HostTest, NodeWithoutAnAddressIsFound) {
  Write("ssh", "#!/bin/bash\nneeded='true'\n");
  EXPECT_THAT(Found("ssh", "localhost"), Not(Contains("host.no-address")));
  // A label of more than 63 characters is no name that anybody is asked for.
  EXPECT_THAT(Found("ssh", std::string(64, 'x')), Contains("host.no-address"));
}

// The script for a single machine gives that name, so none of its runs finds its host.
TEST_F(HostTest, LocalhostWithoutAnAddressIsAnErrorWhereRunsNeedIt) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("local", "#!/bin/bash\n");
  Write("own", "#!/bin/bash\n");
  const std::string hosts = directory_.Write("hosts", "192.0.2.1 nowhere\n");
  const std::string services = directory_.Write("nsswitch.conf", "hosts: files\n");
  const auto severity = [&](const std::string& script) {
    return Ask(
        [&] {
          // The mounts are of this process alone.
          if (unshare(CLONE_NEWNS) != 0 ||
              mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
              mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0 ||
              mount(services.c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr) != 0) {
            return std::string("no mount");
          }
          const Findings findings = CheckHost(SiteOf({"-p", "5000", "-s", directory_.File(script)},
                                                     directory_.File("vkjobmill.exe")));
          for (const Finding& finding : findings) {
            if (finding.what.starts_with("the name 'localhost'")) {
              return Name(finding.severity) + (" " + finding.id);
            }
          }
          return std::string();
        },
        std::chrono::minutes(1));
  };
  const auto local = severity("local");
  if (local == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(local, "error host.no-address");
  EXPECT_EQ(severity("own"), "warning host.no-address");
}

// The controller looks for the host when it has changed its account.
TEST_F(HostTest, NameThatAnAccountCannotResolveIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("local", "#!/bin/bash\n");
  directory_.Write(".vk_corvane_users", "alice daemon 1\n");
  const std::string hosts = directory_.Write("hosts", "127.0.0.1 localhost\n");
  const std::string services = directory_.Write("nsswitch.conf", "hosts: files\n");
  const auto found = [&] {
    return Ask(
        [&] {
          if (unshare(CLONE_NEWNS) != 0 ||
              mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
              mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0 ||
              mount(services.c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr) != 0) {
            return std::string("no mount");
          }
          const Findings findings = CheckHost(SiteOf({"-p", "5000", "-s", directory_.File("local")},
                                                     directory_.File("vkjobmill.exe")));
          for (const Finding& finding : findings) {
            if (finding.what.starts_with("the name 'localhost'")) {
              return Name(finding.severity) + (" " + finding.id + ": " + finding.what);
            }
          }
          return std::string();
        },
        std::chrono::minutes(1));
  };
  if (found() == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(found(), "");
  chmod(hosts.c_str(), 0600);
  EXPECT_EQ(found(),
            "error host.no-address: the name 'localhost', which the script for a single machine "
            "gives, has an IPv4 address for root, and none for daemon, who cannot read /etc/hosts");
}

TEST_F(HostTest, LoopbackThatIsDownIsFound) {
  Write("local", "#!/bin/bash\n");
  Write("own", "#!/bin/bash\n");
  const std::string hosts = directory_.Write("hosts", "192.0.2.1 localhost\n");
  // With localhost as it is, and as an address that is not of this machine.
  const auto found = [&](const std::string& script, bool elsewhere) {
    return InPrivateNetwork([&] {
      if (elsewhere && mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
        return std::string("no mount");
      }
      for (const std::string& id : Found(script)) {
        if (id == "host.no-loopback") return id;
      }
      return std::string();
    });
  };
  const auto elsewhere = found("local", true);
  if (!elsewhere || *elsewhere == "no mount") GTEST_SKIP() << "no network of its own here";
  EXPECT_EQ(found("local", false), "");
  EXPECT_EQ(elsewhere, "host.no-loopback");
  EXPECT_EQ(found("own", true), "");
}

TEST_F(HostTest, FileFromTheFutureIsFound) {
  Write("script", "#!/bin/sh\n");
  const utimbuf future{time(nullptr) + 3600, time(nullptr) + 3600};
  ASSERT_EQ(utime(directory_.File("script").c_str(), &future), 0);
  EXPECT_THAT(Found("script"), Contains("host.clock"));
  const utimbuf further{time(nullptr) + 7200, time(nullptr) + 7200};
  ASSERT_EQ(utime(directory_.Write(".vk_corvane_env", "").c_str(), &further), 0);
  const Findings findings =
      CheckHost(SiteOf({"-p", "5000", "-s", directory_.File("script")}, directory_.File("x")));
  std::vector<std::string> clocks;
  for (const Finding& finding : findings) {
    if (finding.id == "host.clock") clocks.push_back(finding.what);
  }
  EXPECT_THAT(clocks, testing::ElementsAre(testing::MatchesRegex(
                          "it was changed, like 1 others, up to 7[12][0-9][0-9] s in the future")));
}

}  // namespace
}  // namespace inspect
