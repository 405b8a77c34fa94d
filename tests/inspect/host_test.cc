#include "inspect/host.h"

#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
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
#include "tests/inspect/own_view.h"
#include "tests/support/private_network.h"
#include "tests/support/running_daemon.h"
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

// In an /etc of its own, whose hosts only root can read.
TEST_F(HostTest, AccountsThatCannotResolveAreNamedUpToANumber) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("local", "#!/bin/bash\n");
  std::string users;
  std::string passwd = "root:x:0:0::/root:/bin/sh\n";
  for (int i = 10; i < 28; ++i) {
    const std::string name = "account" + std::to_string(i);
    users.append(name).append(" ").append(name).append(" 1\n");
    passwd.append(name).append(":x:").append(std::to_string(4000 + i)).append(":4000::/:/bin/sh\n");
  }
  directory_.Write(".vk_corvane_users", users);
  Write("etc/passwd", passwd);
  Write("etc/nsswitch.conf", "hosts: files\npasswd: files\n");
  Write("etc/hosts", "127.0.0.1 localhost\n");
  chmod(directory_.File("etc/hosts").c_str(), 0600);
  chmod(directory_.path().c_str(), 0755);
  const std::string found = WithMounts({{directory_.File("etc"), "/etc"}}, [&] {
    const Findings findings = CheckHost(
        SiteOf({"-p", "5000", "-s", directory_.File("local")}, directory_.File("vkjobmill.exe")));
    for (const Finding& finding : findings) {
      if (finding.what.starts_with("the name 'localhost'")) return finding.what;
    }
    return std::string();
  });
  if (found == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  // Files that are not there are none that cannot be read.
  EXPECT_THAT(found, testing::EndsWith("account24, account25, who cannot read /etc/hosts"));
  EXPECT_THAT(found, testing::HasSubstr("and none for account10, account11, "));
}

TEST_F(HostTest, NamesBetweenTheCommasOfNodesAreLookedFor) {
  Write("ssh", "#!/bin/bash\nneeded='true'\n");
  EXPECT_THAT(Found("ssh", "localhost,,localhost,"), Not(Contains("host.no-address")));
}

TEST_F(HostTest, OtherAccountsThanRootLookAsTheyAre) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("own", "#!/bin/bash\n");
  chmod(directory_.path().c_str(), 0755);
  const auto found = [&](const std::vector<std::string>& words) {
    return AsNobody([&] { return IdsIn(CheckHost(SiteOf(words, directory_.File("x")))); });
  };
  EXPECT_EQ(found({"-p", "5000", "-s", directory_.File("own")}).find("localhost"),
            std::string::npos);
  EXPECT_NE(found({"-p", "5000", "-u", "-s", directory_.File("own")}), "none");
}

// Without a socket there is nothing to try, and so nothing to say.
TEST_F(HostTest, LoopbackThatCannotBeTriedIsNoFinding) {
  Write("local", "#!/bin/bash\n");
  const std::string hosts = directory_.Write("hosts", "192.0.2.1 localhost\n");
  const auto found = [&](long number) {
    return InPrivateNetwork([&] {
      if (mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
        return std::string("no mount");
      }
      return WithAnsweredCall(
          static_cast<int>(number), []() -> long { return -ENOBUFS; },
          [&] {
            const std::string ids = IdsIn(CheckHost(
                SiteOf({"-p", "5000", "-s", directory_.File("local")}, directory_.File("x"))));
            return std::string(ids.find("host.no-loopback;") == std::string::npos ? "" : "found");
          });
    });
  };
  const auto usual = found(SYS_sync);
  if (!usual || *usual == "no mount") GTEST_SKIP() << "no network of its own here";
  EXPECT_EQ(*usual, "found");
  for (const long number : {SYS_bind, SYS_listen, SYS_setsockopt, SYS_getsockname}) {
    EXPECT_EQ(found(number), "") << number;
  }
}

TEST_F(HostTest, PacketFilterThatKeepsLoopbackIsFound) {
  Write("local", "#!/bin/bash\n");
  const std::string rules =
      directory_.Write("rules",
                       "table inet t {\n chain c {\n type filter hook input priority 0;\n"
                       " meta l4proto tcp drop\n }\n}\n");
  const auto found = InPrivateNetwork([&] {
    const auto loaded = RunCommand({"nft", "--file", rules});
    if (!loaded || loaded->status != 0) return std::string("no nft");
    const Findings findings =
        CheckHost(SiteOf({"-p", "5000", "-s", directory_.File("local")}, directory_.File("x")));
    for (const Finding& finding : findings) {
      if (finding.id == "host.no-loopback") return finding.what;
    }
    return std::string();
  });
  if (!found || *found == "no nft") GTEST_SKIP() << "no packet filter of its own here";
  EXPECT_THAT(*found, testing::EndsWith("127.0.0.1, does not arrive: nothing answers within 2 s"));
}

// The first name server asked does not answer; what is resolved comes three seconds late.
TEST_F(HostTest, NameThatTakesSecondsIsFound) {
  Write("own", "#!/bin/bash\n");
  Write("etc/nsswitch.conf", "hosts: dns files\n");
  Write("etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:3 attempts:1\n");
  Write("etc/hosts", "127.0.0.1 localhost quick\n");
  const auto found = InPrivateNetwork([&] {
    const Descriptor server(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        unshare(CLONE_NEWUTS) != 0 || sethostname("quick", 5) != 0 ||
        mount(directory_.File("etc").c_str(), "/etc", nullptr, MS_BIND, nullptr) != 0) {
      return std::string("no mount");
    }
    for (const std::string& id : Found("own")) {
      if (id == "host.name-slow") return id;
    }
    return std::string();
  });
  if (!found || *found == "no mount") GTEST_SKIP() << "no network of its own here";
  EXPECT_EQ(*found, "host.name-slow");
}

TEST_F(HostTest, LimitsOfTheRunningDaemonAreJudged) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  const RunningDaemon daemon(options);
  const RunningDaemon other(options);
  rlimit old{};
  prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &old);
  const auto found = [&](rlim_t descriptors, rlim_t processes) {
    const rlimit files{descriptors, old.rlim_max};
    const rlimit tasks{processes, processes};
    prlimit(daemon.pid(), RLIMIT_NOFILE, &files, nullptr);
    prlimit(daemon.pid(), RLIMIT_NPROC, &tasks, nullptr);
    std::string ids;
    for (const Finding& finding :
         CheckHost(SiteOf({"-p", std::to_string(daemon.port())}, directory_.File("x")))) {
      if (finding.id == "host.descriptors" || finding.id == "host.processes") {
        ids += finding.id + ": " + finding.what + "; ";
      }
    }
    return ids;
  };
  if (old.rlim_max < 4096) GTEST_SKIP() << "few descriptors here";
  EXPECT_EQ(found(4096, 4096), "");
  EXPECT_EQ(found(4096, RLIM_INFINITY), "");
  EXPECT_EQ(found(1024, 100),
            "host.descriptors: the daemon, process " + std::to_string(daemon.pid()) +
                ", may have 1024 descriptors; host.processes: an account of a run may have 100 "
                "processes and threads; ");
}

// The settings stand in files of the kernel, in whose place others are put.
TEST_F(HostTest, SettingsOfTheKernelAreJudged) {
  Write("own", "#!/bin/bash\n");
  Write("fs/protected_symlinks", "0\n");
  Write("tty/legacy_tiocsti", "1\n");
  const auto ids = [&](const std::map<std::string, std::string>& mounts) {
    return WithMounts(mounts, [&] {
      std::string both;
      for (const std::string& id : Found("own")) {
        if (id == "host.protected-symlinks" || id == "host.terminal-typing") both += id + ";";
      }
      return both;
    });
  };
  const std::string bad =
      ids({{directory_.File("fs"), "/proc/sys/fs"}, {directory_.File("tty"), "/proc/sys/dev/tty"}});
  if (bad == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(bad, "host.protected-symlinks;host.terminal-typing;");
  Write("fs/protected_symlinks", "1\n");
  Write("tty/legacy_tiocsti", "0\n");
  EXPECT_EQ(
      ids({{directory_.File("fs"), "/proc/sys/fs"}, {directory_.File("tty"), "/proc/sys/dev/tty"}}),
      "");
}

}  // namespace
}  // namespace inspect
