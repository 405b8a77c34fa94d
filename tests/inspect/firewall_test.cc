#include "inspect/firewall.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/access.h"
#include "inspect/probe.h"
#include "tests/inspect/findings.h"
#include "tests/inspect/own_view.h"
#include "tests/support/private_network.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

AddressRanges Ranges(const std::string& text) {
  return MastersIn("define masters = { " + text + " }\n");
}

TEST(AddressRangesTest, TextsAreReadAndShown) {
  for (const char* text : {"192.0.2.0/28", "192.0.2.1", "192.0.2.1-192.0.2.9", "0.0.0.0/0",
                           "10.0.0.0/8, 192.168.1.1"}) {
    EXPECT_EQ(Text(Ranges(text)), text);
  }
  EXPECT_EQ(Text(Ranges("10.0.0.0/9, 10.128.0.0/9, 10.3.0.0/16")), "10.0.0.0/8");
  for (const char* text : {"x", "10.0.0.1-10.0.0.0", "10.0.0.0/33", "10.0.0.0/", "10.0.0"}) {
    EXPECT_THAT(Ranges(text), IsEmpty()) << text;
  }
}

TEST(AddressRangesTest, WhatIsLeftAndWhatIsShared) {
  EXPECT_EQ(Text(Minus(Ranges("10.0.0.0/8"), Ranges("10.0.0.0/9, 10.192.0.0/10"))),
            "10.128.0.0/10");
  EXPECT_THAT(Minus(Ranges("10.0.0.0/8"), Ranges("0.0.0.0/0")), IsEmpty());
  EXPECT_EQ(Text(Minus(Ranges("255.0.0.0/8"), {})), "255.0.0.0/8");
  EXPECT_EQ(Text(Common(Ranges("10.0.0.0/8"), Ranges("10.3.0.0/16, 11.0.0.0/8"))), "10.3.0.0/16");
  EXPECT_EQ(Size(Ranges("0.0.0.0/0")), std::uint64_t{1} << 32);
}

TEST(MastersTest, NetworksOfTheFileAreRead) {
  EXPECT_EQ(Text(MastersIn("# define masters = { 10.0.0.0/8 }\n  define masters = {\n"
                           "  192.0.2.0/28, # the office\n  198.51.100.7\n}\n")),
            "192.0.2.0/28, 198.51.100.7");
  EXPECT_EQ(Text(MastersIn("define masters = 192.0.2.0/28;\n")), "192.0.2.0/28");
  EXPECT_THAT(MastersIn("define masters = { 192.0.2.0/28, $others }\n"), IsEmpty());
  EXPECT_THAT(MastersIn("define daemons = { 192.0.2.0/28 }\n"), IsEmpty());
}

TEST(MastersTest, FileWithManyNetworksAndRemarksIsRead) {
  std::string text = "define masters =\n{\n";
  for (int i = 0; i < 20'000; ++i) {
    text += "# another office\n10." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
            ".0/24,\n";
  }
  EXPECT_EQ(MastersIn(text + "192.0.2.1 }\n").size(), 81U) << "80 times 250 networks in a row";
  EXPECT_THAT(MastersIn(text), IsEmpty()) << "the list has no end";
}

// Rules are loaded into a network of the test's own, and judged as nft lists them.
class FirewallTest : public testing::Test {
 protected:
  std::vector<std::string> Judged(const std::string& rules, int port = 5000) {
    text_ = "";
    const std::string file = directory_.Write("rules", rules);
    const auto listed = InPrivateNetwork([&] {
      const auto loaded = RunCommand({"nft", "--file", file}, Complaints::kIncluded);
      if (!loaded || loaded->status != 0) return "no nft: " + (loaded ? loaded->output : "");
      const auto answer = RunCommand({"nft", "-j", "list", "ruleset"});
      return answer && answer->status == 0 ? answer->output : std::string("no nft");
    });
    if (!listed || listed->starts_with("no nft")) return {listed.value_or("no network")};
    Site site = SiteOf({"-p", std::to_string(port)}, "/none/vkjobmill.exe", directory_.path());
    const Findings findings = JudgeFirewall(site, *listed);
    for (const Finding& finding : findings) text_ += finding.what + "\n";
    return Ids(findings);
  }
  // The rules of one chain of a base.
  std::vector<std::string> JudgedChain(const std::string& policy, const std::string& lines) {
    return Judged(
        "table inet filter {\n set office { type ipv4_addr; flags interval;\n"
        "  elements = { 10.1.0.0/16, 192.168.7.1-192.168.7.9 } }\n chain ours {\n"
        "  ip saddr 10.0.0.0/8 accept\n }\n chain input {\n"
        "  type filter hook input priority 0; policy " +
        policy + ";\n" + lines + " }\n}\n");
  }
  void SetUp() override {
    const auto ids = Judged("");
    if (ids.size() == 1 && ids[0].starts_with("no n")) GTEST_SKIP() << ids[0];
  }
  std::string Shipped() const {
    const auto text = RunCommand({"cat", SOURCES "/deploy/nftables/jobmill.nft"});
    return text->output;
  }
  // That file, for another network of masters.
  std::string ShippedFor(const std::string& masters) const {
    std::string text = Shipped();
    const std::string example = "192.0.2.0/28";
    return text.replace(text.find(example), example.size(), masters);
  }

  TemporaryDirectory directory_;
  std::string text_;
};

TEST_F(FirewallTest, NoRulesAreOpen) {
  EXPECT_THAT(Judged(""), ElementsAre("warning host.open"));
}

TEST_F(FirewallTest, ShippedFileIsGood) {
  directory_.Write("jobmill.nft", ShippedFor("10.1.0.0/16"));
  EXPECT_THAT(Judged(ShippedFor("10.1.0.0/16")), IsEmpty());
}

TEST_F(FirewallTest, PortThatTheFileDoesNotNameIsOpen) {
  directory_.Write("jobmill.nft", ShippedFor("10.1.0.0/16"));
  EXPECT_THAT(Judged(ShippedFor("10.1.0.0/16"), 5001), ElementsAre("warning host.open"));
}

TEST_F(FirewallTest, OtherNetworksThanThoseOfTheFileAreNamed) {
  directory_.Write("jobmill.nft", ShippedFor("10.1.0.0/16"));
  EXPECT_THAT(Judged(ShippedFor("10.0.0.0/14, 192.168.3.0/24")),
              ElementsAre("warning host.other-networks"));
  EXPECT_THAT(text_, HasSubstr("lets 10.0.0.0/16, 10.2.0.0/15, 192.168.3.0/24 reach port 5000"));
}

TEST_F(FirewallTest, MastersOfTheFileThatAreKeptAwayAreNamed) {
  directory_.Write("jobmill.nft", ShippedFor("10.0.0.0/15"));
  EXPECT_THAT(Judged(ShippedFor("10.1.0.0/16")), ElementsAre("error host.closed"));
  EXPECT_THAT(text_, HasSubstr("keeps 10.0.0.0/16, which this file names, from port 5000, by chain "
                               "input of table inet jobmill\n"));
  // Another table drops what this one lets through.
  EXPECT_THAT(
      Judged(ShippedFor("10.0.0.0/15") + "table ip site { chain input {\n"
                                         " type filter hook input priority 5; policy drop;\n"
                                         " tcp dport 22 accept\n}\n}\n"),
      ElementsAre("error host.closed"));
  EXPECT_THAT(text_, HasSubstr(", by chain input of table ip site\n"));
}

TEST_F(FirewallTest, NetworkOfTheExampleIsFound) {
  directory_.Write("jobmill.nft", Shipped());
  EXPECT_THAT(Judged(Shipped()), ElementsAre("warning host.example-network"));
}

TEST_F(FirewallTest, RulesOfTheSiteItself) {
  EXPECT_THAT(JudgedChain("accept", "tcp dport 5000 accept\n"), ElementsAre("warning host.open"));
  EXPECT_THAT(JudgedChain("accept", "tcp dport 15000 drop\n"), ElementsAre("warning host.open"));
  EXPECT_THAT(JudgedChain("accept", "ip saddr 203.0.113.0/24 drop\n"),
              ElementsAre("warning host.open"));
  EXPECT_THAT(JudgedChain("drop", "tcp dport 5000 accept\n"), ElementsAre("warning host.open"));
  EXPECT_THAT(JudgedChain("drop",
                          "ct state established,related accept\n"
                          "tcp dport { 22, 4000-6000 } ip saddr @office accept\n"),
              IsEmpty());
  EXPECT_THAT(JudgedChain("accept", "tcp dport 5000 ip saddr != @office reject\n"), IsEmpty());
  EXPECT_THAT(JudgedChain("drop", "tcp dport 5000 jump ours\n"), IsEmpty());
  EXPECT_THAT(JudgedChain("drop", "tcp dport vmap { 22 : accept, 5000 : jump ours }\n"), IsEmpty());
  EXPECT_THAT(JudgedChain("drop", "iifname lo accept\n tcp dport 22 accept\n"),
              ElementsAre("error host.closed"));
  EXPECT_THAT(JudgedChain("accept", "tcp dport 5000 ct count over 10 drop\n"),
              ElementsAre("warning host.open"));
}

TEST_F(FirewallTest, NothingIsSaidOfWhatCannotBeKnown) {
  EXPECT_THAT(JudgedChain("drop", "iifname eth1 accept\n"), IsEmpty());
  EXPECT_THAT(JudgedChain("accept", "meta mark 7 drop\n"), IsEmpty());
}

TEST(JudgeFirewallTest, WhatIsNoListOfRulesIsNotUnderstood) {
  const Site site = SiteOf({"-p", "5000"}, "/none/vkjobmill.exe");
  for (const char* text :
       {"", "{", "[]", R"({"nftables": 1})", R"({"nftables": [{"rule": {}}]})"}) {
    EXPECT_THAT(Ids(JudgeFirewall(site, text)), ElementsAre("unchecked host.firewall-unchecked"))
        << text;
  }
}

TEST(JudgeFirewallTest, AllChainsThatKeepAMasterAwayAreNamed) {
  const TemporaryDirectory directory;
  directory.Write("jobmill.nft", "define masters = { 10.0.0.0/15 }\n");
  const std::vector<std::string> words = {"-p", "5000"};
  const Site site = SiteOf(words, "/none/vkjobmill.exe", directory.path());
  const auto table = [](const std::string& name, const std::string& network) {
    const std::string of = R"("family": "inet", "table": ")" + name + "\", ";
    return R"({"chain": {)" + of + R"("name": "input", "type": "filter", "hook": "input"}},
        {"rule": {)" +
           of + R"("chain": "input", "expr": [{"match": {"op": "==",
        "left": {"payload": {"protocol": "ip", "field": "saddr"}},
        "right": {"prefix": {"addr": ")" +
           network + R"(", "len": 16}}}}, {"drop": null}]}})";
  };
  const Findings findings = JudgeFirewall(
      site, R"({"nftables": [)" + table("one", "10.0.0.0") + "," + table("two", "10.1.0.0") + "]}");
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[1].id, "host.closed");
  EXPECT_THAT(findings[1].what, testing::EndsWith(", by chain input of table inet one and chain "
                                                  "input of table inet two"));
}

// With another program in the place of nft.
class CheckFirewallTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    std::filesystem::create_directory(directory_.File("sbin"));
    if (Found() == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  }
  std::string Found() const {
    return WithMounts({{directory_.File("sbin"), "/usr/sbin"}}, [&] {
      const Findings findings = CheckFirewall(SiteOf({"-p", "5000"}, "/none/vkjobmill.exe"));
      return findings.empty() ? std::string() : findings[0].id + ": " + findings[0].what;
    });
  }
  TemporaryDirectory directory_;
};

TEST_F(CheckFirewallTest, WithoutNftNothingIsKnown) {
  EXPECT_EQ(Found(),
            "host.firewall-unchecked: there is no nft, and other packet filters are not looked at");
}

TEST_F(CheckFirewallTest, NftThatFailsIsSaid) {
  chmod(directory_.Write("sbin/nft", "#!/bin/sh\nexit 1\n").c_str(), 0755);
  EXPECT_EQ(Found(), "host.firewall-unchecked: nft does not list its rules");
}

TEST_F(CheckFirewallTest, WhatNftListsIsJudged) {
  chmod(directory_.Write("sbin/nft", "#!/bin/sh\necho '{\"nftables\": []}'\n").c_str(), 0755);
  EXPECT_EQ(Found(), "host.open: the packet filter lets everybody reach port 5000");
}

TEST_F(CheckFirewallTest, RulesAreRootsToSee) {
  if (RegularFiles({"/usr/sbin/nft"}).empty()) GTEST_SKIP() << "no nft here";
  EXPECT_EQ(AsNobody([] {
              return CheckFirewall(SiteOf({"-p", "5000"}, "/none/vkjobmill.exe")).at(0).what;
            }),
            "the packet filter can be read by root alone");
}

TEST(AddressRangesTest, OnlyAFewAreShown) {
  EXPECT_EQ(Text(Ranges("10.0.0.1, 10.0.0.3, 10.0.0.5, 10.0.0.7, 10.0.0.9")),
            "10.0.0.1, 10.0.0.3, 10.0.0.5, 10.0.0.7 and others");
  EXPECT_EQ(Text({{0, 5}}), "0.0.0.0-0.0.0.5");
  for (const char* text : {"10.0.0.1-x", "10.0.0.0/-1"}) {
    EXPECT_THAT(Ranges(text), IsEmpty()) << text;
  }
}

}  // namespace
}  // namespace inspect
