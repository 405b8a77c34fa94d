// Runs the cases of one family per directory beside this file: tests named Sessions.NAME and so on.

#include <signal.h>
#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/hostile/cases.h"
#include "tests/hostile/runner.h"
#include "tests/support/private_network.h"

namespace {

struct Family {
  const char* suite;
  const char* directory;
  std::size_t least;
  std::vector<Case> cases;
  std::map<std::vector<std::string>, std::unique_ptr<WatchedDaemon>> daemons;
  Figures most;

  WatchedDaemon& Daemon(const std::vector<std::string>& arguments) {
    auto& daemon = daemons[arguments];
    const bool as_root = std::find(arguments.begin(), arguments.end(), "-u") == arguments.end();
    if (!daemon) daemon = std::make_unique<WatchedDaemon>(arguments, as_root);
    return *daemon;
  }
};

std::vector<Family>& Families() {
  static std::vector<Family> families;
  return families;
}

class CaseTest : public testing::Test {
 public:
  CaseTest(Family& family, const Case& wanted) : family_(family), wanted_(wanted) {}

  void TestBody() override {
    const bool as_root = std::find(wanted_.arguments.begin(), wanted_.arguments.end(), "-u") ==
                         wanted_.arguments.end();
    if (as_root && getuid() != 0) GTEST_SKIP() << "accounts are switched by root only";
    Figures figures;
    const std::string complaint = RunCase(wanted_, family_.Daemon(wanted_.arguments), figures);
    family_.most.memory = std::max(family_.most.memory, figures.memory);
    family_.most.processor = std::max(family_.most.processor, figures.processor);
    RecordProperty("memory_kib", std::to_string(figures.memory));
    RecordProperty("processor_us", std::to_string(figures.processor));
    EXPECT_TRUE(complaint.empty()) << wanted_.file << ": " << wanted_.name << "\n" << complaint;
  }

 private:
  Family& family_;
  const Case& wanted_;
};

class CountTest : public testing::Test {
 public:
  explicit CountTest(const Family& family) : family_(family) {}
  void TestBody() override {
    std::cout << family_.cases.size() << " cases\n";
    EXPECT_GE(family_.cases.size(), family_.least);
  }

 private:
  const Family& family_;
};

// Ends the daemons after every pass through the tests, and says what the family took. A pass that
// is repeated (--gtest_repeat) needs new ones: some cases are about the port of a first run.
class Closing : public testing::EmptyTestEventListener {
 public:
  void OnTestIterationEnd(const testing::UnitTest& /*tests*/, int /*pass*/) override {
    for (Family& family : Families()) {
      if (family.daemons.empty()) continue;
      std::cout << family.suite << ": " << family.cases.size() << " cases, at most "
                << family.most.memory << " KiB and " << family.most.processor
                << " microseconds of processor\n";
      family.daemons.clear();
    }
  }
};

void Register(Family& family) {
  testing::RegisterTest(family.suite, "HasItsNumberOfCases", nullptr, nullptr, __FILE__, __LINE__,
                        [&family]() -> testing::Test* { return new CountTest(family); });
  for (const Case& wanted : family.cases) {
    testing::RegisterTest(
        family.suite, wanted.name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
        [&family, &wanted]() -> testing::Test* { return new CaseTest(family, wanted); });
  }
}

// Some cases are about certain ports, and two of these programs may run at the same time. As root
// each has a network to itself, and a directory for the logs of its daemons, which are named by
// their ports.
bool LeaveOtherRunsAlone() {
  return getuid() != 0 || !EnterPrivateNetwork() ||
         mount("none", "/var/log", "tmpfs", 0, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  signal(SIGPIPE, SIG_IGN);
  if (!LeaveOtherRunsAlone()) {
    perror("a directory for logs");
    return 1;
  }
  auto& families = Families();
  families.push_back({"Sessions", "sessions", 400, {}, {}, {}});
  families.push_back({"Simulators", "simulators", 600, {}, {}, {}});
  families.push_back({"Scripts", "scripts", 60, {}, {}, {}});
  families.push_back({"Users", "users", 80, {}, {}, {}});
  families.push_back({"Environments", "environments", 60, {}, {}, {}});
  try {
    for (Family& family : families) {
      family.cases = ReadCases(std::string(HOSTILE_CASES) + "/" + family.directory);
      Register(family);
    }
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
  testing::UnitTest::GetInstance()->listeners().Append(new Closing);
  return RUN_ALL_TESTS();
}
