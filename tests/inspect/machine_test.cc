#include "inspect/machine.h"

#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/own_view.h"
#include "tests/support/child_process.h"

namespace inspect {
namespace {

std::string MissingOf(const Machine& machine) {
  std::string all;
  for (const std::string& missing : machine.missing()) all += missing + ";";
  return all;
}

TEST(MachineTest, ProcessThatGivesItselfTheNameIsNoJobmill) {
  ChildProcess::Options options;
  options.in_child = [] {
    prctl(PR_SET_NAME, "vkjobmill.exe");
    return pause();
  };
  const ChildProcess child({}, options);
  ASSERT_TRUE(
      Eventually([&] { return Process::Open(child.pid())->stat().name == "vkjobmill.exe"; }));
  const Machine machine;
  EXPECT_TRUE(machine.processes().contains(child.pid()));
  EXPECT_FALSE(machine.IsJobmill(child.pid()));
}

TEST(MachineTest, WhatCannotBeLookedAtIsSaid) {
  EXPECT_EQ(MissingOf(Machine()), "");
  EXPECT_EQ(WithAnsweredCall(
                SYS_socket, []() -> long { return -EACCES; }, [] { return MissingOf(Machine()); }),
            "sockets: Permission denied;");
}

TEST(MachineTest, ProcessesThatAreHiddenAreSaidToBe) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const std::string missing = WithMounts({}, []() -> std::string {
    if (mount("proc", "/proc", "proc", 0, "hidepid=invisible") != 0) return "no mount";
    return AsNobody([] { return MissingOf(Machine()); });
  });
  if (missing == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(missing, "processes of other accounts: they are hidden (hidepid);");
}

TEST(JobmillTest, DescriptorLeadsToWhatIsOpenAsIt) {
  Jobmill jobmill;
  EXPECT_EQ(jobmill.Target(0), "");
  jobmill.files = {{1, "/var/log/VKJobmill_5000.log"}, {3, "socket:[7]"}};
  EXPECT_EQ(jobmill.Target(0), "");
  EXPECT_EQ(jobmill.Target(3), "socket:[7]");
}

}  // namespace
}  // namespace inspect
