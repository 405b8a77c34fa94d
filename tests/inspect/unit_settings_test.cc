#include "inspect/unit_settings.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/findings.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kShipped = SOURCES "/deploy/systemd/jobmill.service.in";

class UnitSettingsTest : public testing::Test {
 protected:
  Findings Check(const std::string& addition) const {
    return CheckUnitSettings({kShipped, directory_.Write("addition.conf", addition)});
  }
  std::vector<std::string> IdsOf(const std::string& addition) const { return Ids(Check(addition)); }

  TemporaryDirectory directory_;
};

TEST_F(UnitSettingsTest, ShippedUnitTakesNothing) {
  EXPECT_THAT(CheckUnitSettings({kShipped}), IsEmpty());
  EXPECT_THAT(CheckUnitSettings({"/none"}), IsEmpty());
}

TEST_F(UnitSettingsTest, SettingIsNamedWithFileAndLine) {
  const Findings findings = Check("# x\n[Service]\nPrivateTmp=yes\n");
  ASSERT_THAT(Ids(findings), ElementsAre("warning service.restricted:3"));
  EXPECT_EQ(findings[0].file, directory_.File("addition.conf"));
  EXPECT_EQ(findings[0].what, "sets PrivateTmp=yes");
}

TEST_F(UnitSettingsTest, EachThatTheUnitWarnsOfIsFound) {
  for (const char* line : {"User=daemon", "DynamicUser=yes", "ProtectSystem=strict",
                           "ProtectHome=read-only", "PrivateNetwork=true", "PrivateUsers=1"}) {
    EXPECT_THAT(IdsOf("[Service]\n" + std::string(line) + "\n"),
                ElementsAre("error service.restricted:2"))
        << line;
  }
  for (const char* line : {"NoNewPrivileges=yes",
                           "CapabilityBoundingSet=CAP_SETUID CAP_SETGID",
                           "CapabilityBoundingSet=",
                           "ProtectKernelTunables=yes",
                           "ProtectKernelLogs=yes",
                           "ProtectControlGroups=yes",
                           "ProtectProc=invisible",
                           "ProcSubset=pid",
                           "RestrictNamespaces=yes",
                           "ProtectHostname=yes",
                           "RestrictSUIDSGID=yes",
                           "LockPersonality=yes",
                           "MemoryDenyWriteExecute=yes",
                           "SystemCallArchitectures=native",
                           "RestrictAddressFamilies=AF_UNIX",
                           "RestrictRealtime=yes",
                           "SystemCallFilter=@system-service",
                           "ProtectKernelModules=yes",
                           "ProtectClock=yes",
                           "PrivateDevices=yes",
                           "DevicePolicy=closed",
                           "IPAddressDeny=any",
                           "UMask=0077",
                           "MemoryMax=8G",
                           "TasksMax=50%",
                           "TasksMax=512",
                           "LimitFSIZE=1G",
                           "KillMode=control-group",
                           "OOMPolicy=kill",
                           "Restart=no",
                           "CPUQuota=50%",
                           "TemporaryFileSystem=/scratch"}) {
    EXPECT_THAT(IdsOf("[Service]\n" + std::string(line) + "\n"),
                ElementsAre("warning service.restricted:2"))
        << line;
  }
}

TEST_F(UnitSettingsTest, WhatTakesNothingIsGood) {
  EXPECT_THAT(IdsOf("[Service]\nUser=root\nPrivateTmp=false\nProtectSystem=no\nMemoryMax=infinity\n"
                    "TasksMax=100000\nLimitNOFILE=1048576\nReadWritePaths=/usr/local/data\n"
                    "CapabilityBoundingSet=~CAP_NET_ADMIN\nSystemCallFilter=\nNice=5\n"),
              IsEmpty());
  EXPECT_THAT(IdsOf("[Unit]\nPrivateTmp=yes\n[Service]\n#PrivateTmp=yes\n"), IsEmpty());
}

TEST_F(UnitSettingsTest, LastOneCounts) {
  EXPECT_THAT(IdsOf("[Service]\nPrivateTmp=yes\nPrivateTmp=no\n"), IsEmpty());
  EXPECT_THAT(IdsOf("[Service]\nIPAddressDeny=any\nIPAddressDeny=\n"), IsEmpty());
  EXPECT_THAT(IdsOf("[Service]\n Private\\\n# in the middle\nTmp = yes\n"), IsEmpty());
  EXPECT_THAT(IdsOf("[Service]\n ReadOnlyPaths = \\\n# in the middle\n  /data\n"),
              ElementsAre("warning service.restricted:2"));
}

TEST_F(UnitSettingsTest, WordsForYesAndNoAreOne) {
  for (const char* value : {"yes", "true", "on", "1"}) {
    EXPECT_THAT(IdsOf("[Service]\n; x\nNoNewPrivileges=" + std::string(value) + "\n"),
                ElementsAre("warning service.restricted:3"))
        << value;
  }
  for (const char* value : {"no", "false", "off", "0"}) {
    EXPECT_THAT(IdsOf("[Service]\nNoNewPrivileges=" + std::string(value) + "\n"), IsEmpty())
        << value;
  }
}

TEST_F(UnitSettingsTest, RightsThatTheDaemonNeedsMayNotBeTakenAway) {
  EXPECT_THAT(IdsOf("[Service]\nCapabilityBoundingSet=~CAP_SYS_TIME\n"), IsEmpty());
  for (const char* right : {"CAP_SETUID", "CAP_SETGID", "CAP_DAC_OVERRIDE"}) {
    EXPECT_THAT(
        IdsOf("[Service]\nCapabilityBoundingSet=~CAP_SYS_TIME " + std::string(right) + "\n"),
        ElementsAre("warning service.restricted:2"))
        << right;
  }
}

TEST_F(UnitSettingsTest, RightsThatSeveralLinesTakeAwayAddUp) {
  const std::string set = "CapabilityBoundingSet=";
  const std::string taken = "[Service]\n" + set + "~CAP_SETUID\n" + set + "~CAP_SYS_TIME\n";
  EXPECT_THAT(IdsOf(taken), ElementsAre("warning service.restricted:2"));
  EXPECT_THAT(IdsOf(taken + set + "~\n"), IsEmpty());
}

}  // namespace
}  // namespace inspect
