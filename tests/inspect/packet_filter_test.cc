#include "inspect/packet_filter.h"

#include <string>

#include <gtest/gtest.h>

namespace inspect {
namespace {

// Rules as nft shows them: table "site" has a base chain "input" and a chain "ours" beside it.
std::string Document(const std::string& policy, const std::string& rules,
                     const std::string& ours = "") {
  const std::string chain = R"({"chain": {"family": "inet", "table": "site", "name": )";
  const auto rule = [](const std::string& of, const std::string& parts) {
    return R"(, {"rule": {"family": "inet", "table": "site", "chain": ")" + of + R"(", "expr": [)" +
           parts + "]}}";
  };
  return R"({"nftables": [)" + chain +
         R"("input", "type": "filter", "hook": "input", "policy": ")" + policy + "\"}}, " + chain +
         "\"ours\"}}" + rule("input", rules) + rule("ours", ours) + "]}";
}

// What becomes of a connection to port 5000.
std::string FateOf(const std::string& document) {
  const auto found = Judge(document, 5000);
  if (!found) return "not understood";
  const AddressRanges all = {{0x01000000, 0x7effffff}, {0x80000000, 0xdfffffff}};
  if (Size(found->accepted) == Size(all)) return "accepted";
  if (Size(found->dropped) == Size(all)) return "dropped";
  if (found->accepted.empty() && found->dropped.empty()) return "unknown";
  return "accepted " + Text(found->accepted) + "; dropped " + Text(found->dropped);
}

// With one rule, after which everything is let in.
std::string FateBy(const std::string& parts, const std::string& ours = "") {
  return FateOf(Document("accept", parts, ours));
}

// With a rule that drops what `left` and `right` match.
std::string FateByMatch(const std::string& left, const std::string& right,
                        const std::string& op = "==") {
  return FateBy(R"({"match": {"op": ")" + op + R"(", "left": )" + left + R"(, "right": )" + right +
                R"(}}, {"drop": null})");
}

std::string Payload(const std::string& protocol, const std::string& field) {
  return R"({"payload": {"protocol": ")" + protocol + R"(", "field": ")" + field + "\"}}";
}

std::string Key(const std::string& kind, const std::string& key) {
  return "{\"" + kind + R"(": {"key": ")" + key + "\"}}";
}

TEST(PacketFilterTest, ProtocolOfAConnectionIsTcp) {
  EXPECT_EQ(FateByMatch(Payload("ip", "protocol"), "\"tcp\""), "dropped");
  EXPECT_EQ(FateByMatch(Payload("ip", "protocol"), "\"udp\""), "accepted");
  EXPECT_EQ(FateByMatch(Key("meta", "protocol"), "\"ip\""), "dropped");
  EXPECT_EQ(FateByMatch(Key("meta", "protocol"), "\"arp\""), "accepted");
  // A field of another protocol matches neither way.
  EXPECT_EQ(FateByMatch(Payload("udp", "dport"), "5000"), "accepted");
  EXPECT_EQ(FateByMatch(Payload("udp", "dport"), "5000", "!="), "accepted");
}

TEST(PacketFilterTest, PortsAreNumbersRangesAndSets) {
  EXPECT_EQ(FateByMatch(Payload("th", "dport"), "5000"), "dropped");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), R"({"range": [4000, 4999]})"), "accepted");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), R"({"range": [5001, 6000]})"), "accepted");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), R"({"range": [5000, 5000]})"), "dropped");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"),
                        R"({"set": [{"elem": {"val": 5000, "comment": "ours"}}]})"),
            "dropped");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), "[22, 5000]"), "dropped");
}

TEST(PacketFilterTest, WhatCannotBeComparedIsUnknown) {
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), "\"http\""), "unknown");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), "\"http\"", "!="), "unknown");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), R"({"|": [1, 2]})"), "unknown");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), R"({"range": ["http", "https"]})"), "unknown");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), R"({"set": ["http", 22]})"), "unknown");
  EXPECT_EQ(FateByMatch(Payload("tcp", "dport"), "\"@nowhere\""), "unknown");
  EXPECT_EQ(FateByMatch(Payload("ip", "saddr"), "\"office\""), "unknown");
  EXPECT_EQ(FateByMatch(Payload("ip", "daddr"), "\"10.0.0.1\""), "unknown");
  EXPECT_EQ(FateByMatch(Key("ct", "mark"), "1"), "unknown");
  EXPECT_EQ(FateByMatch(Key("meta", "l4proto"), "6"), "unknown");
  EXPECT_EQ(FateByMatch(R"({"fib": {"result": "type"}})", "\"local\""), "unknown");
  EXPECT_EQ(FateByMatch(R"({"meta": "mark"})", "1"), "unknown");
  EXPECT_EQ(FateByMatch("{}", "1"), "unknown");
  EXPECT_EQ(FateByMatch("\"mark\"", "1"), "unknown");
}

TEST(PacketFilterTest, LoopbackInterfaceIsNoneOfOtherMachines) {
  EXPECT_EQ(FateByMatch(Key("meta", "iif"), "\"lo\""), "accepted");
  EXPECT_EQ(FateByMatch(Key("meta", "iif"), "\"eth1\""), "unknown");
}

TEST(PacketFilterTest, StatementsThatChangeNothingArePassed) {
  EXPECT_EQ(FateBy(R"({"counter": {"packets": 0}}, {"log": null}, {"drop": null})"), "dropped");
  EXPECT_EQ(FateBy(R"({"log": {"prefix": "masters: "}}, {"drop": null})"), "dropped");
  EXPECT_EQ(FateBy(R"({"log": {"prefix": {"addr": 7}}}, {"drop": null})"), "dropped");
  EXPECT_EQ(FateBy(R"({"counter": null})"), "accepted");
  EXPECT_EQ(FateBy(R"({"xt": {"type": "match"}}, {"drop": null})"), "unknown");
  EXPECT_EQ(FateBy(R"(null, {"drop": null})"), "unknown");
  EXPECT_EQ(FateBy(R"({}, {"drop": null})"), "unknown");
}

TEST(PacketFilterTest, LimitsAreNotReached) {
  const std::string over = R"({"limit": {"rate": 10, "per": "second", "inv": true}})";
  EXPECT_EQ(FateBy(over + R"(, {"drop": null})"), "accepted");
  EXPECT_EQ(FateBy(R"({"limit": {"rate": 10, "per": "second"}}, {"drop": null})"), "dropped");
  EXPECT_EQ(FateBy(R"({"limit": "named"}, {"drop": null})"), "dropped");
  EXPECT_EQ(FateBy(R"({"ct count": {"val": 10}}, {"drop": null})"), "dropped");
  const auto set = [](const std::string& statements) {
    return FateBy(R"({"set": {"op": "add", "set": "@seen", "stmt": [)" + statements +
                  R"(]}}, {"drop": null})");
  };
  EXPECT_EQ(set(over), "accepted");
  EXPECT_EQ(set(R"({"counter": null}, {}, "other")"), "dropped");
  EXPECT_EQ(FateBy(R"({"meter": {"name": "m", "stmt": )" + over + R"(}}, {"drop": null})"),
            "accepted");
}

TEST(PacketFilterTest, ChainsThatAreCalledComeBackOrDoNot) {
  const std::string jump = R"({"jump": {"target": "ours"}}, {"drop": null})";
  const std::string go = R"({"goto": {"target": "ours"}})";
  const std::string drop = R"({"drop": null})";
  const std::string leave = R"({"return": null}, {"drop": null})";
  EXPECT_EQ(FateBy(R"({"jump": {"target": "ours"}})", drop), "dropped");
  EXPECT_EQ(FateBy(R"({"jump": {"target": "ours"}})", leave), "accepted");
  EXPECT_EQ(FateBy(jump, R"({"accept": null})"), "accepted");
  EXPECT_EQ(FateOf(Document("drop", go, leave)), "dropped");
  EXPECT_EQ(FateOf(Document("accept", go, R"({"counter": null})")), "accepted");
  EXPECT_EQ(FateBy(leave), "accepted");
  // No packet goes on for ever: nft refuses such rules.
  EXPECT_EQ(FateBy(go, go), "unknown");
}

TEST(PacketFilterTest, MapsOfVerdicts) {
  const auto map = [](const std::string& data) {
    return FateBy(R"({"vmap": {"key": )" + Payload("tcp", "dport") + R"(, "data": )" + data + "}}");
  };
  EXPECT_EQ(map(R"({"set": [[22, {"accept": null}], [5000, {"drop": null}]]})"), "dropped");
  EXPECT_EQ(map(R"({"set": [[22, {"drop": null}]]})"), "accepted");
  EXPECT_EQ(map(R"({"set": [[5000, {"continue": null}]]})"), "accepted");
  EXPECT_EQ(map(R"({"set": [["http", {"drop": null}]]})"), "unknown");
  EXPECT_EQ(map("\"@named\""), "unknown");
  EXPECT_EQ(map(R"({"other": 1})"), "unknown");
}

TEST(PacketFilterTest, OnlyChainsThatSeeIncomingConnectionsCount) {
  const auto with = [](const std::string& family, const std::string& members) {
    const std::string names = R"("family": ")" + family + R"(", "table": "t", )";
    return FateOf(R"({"nftables": [{"chain": {)" + names + R"("name": "c")" + members +
                  R"(}}, {"rule": {)" + names + R"("chain": "c", "expr": [{"drop": null}]}}]})");
  };
  const std::string input = R"(, "type": "filter", "hook": "input")";
  EXPECT_EQ(with("ip", input), "dropped");
  EXPECT_EQ(with("ip6", input), "accepted");
  EXPECT_EQ(with("inet", R"(, "type": "filter", "hook": "prerouting")"), "dropped");
  EXPECT_EQ(with("inet", R"(, "type": "filter", "hook": "output")"), "accepted");
  EXPECT_EQ(with("ip", R"(, "type": "nat", "hook": "prerouting")"), "accepted");
  // What these see of other machines' packets cannot be told from here.
  EXPECT_EQ(with("netdev", R"(, "type": "filter", "hook": "ingress")"), "unknown");
  EXPECT_EQ(with("bridge", input), "unknown");
  EXPECT_EQ(with("bridge", ""), "accepted");
}

TEST(PacketFilterTest, AddressesAreToldApart) {
  EXPECT_EQ(FateByMatch(Payload("ip", "saddr"),
                        R"({"set": [{"prefix": {"addr": "10.0.0.0", "len": 8}},
                            {"range": ["20.0.0.5", "20.0.0.6"]}, "30.0.0.1"]})",
                        "!="),
            "accepted 10.0.0.0/8, 20.0.0.5-20.0.0.6, 30.0.0.1; dropped 1.0.0.0-9.255.255.255, "
            "11.0.0.0-20.0.0.4, 20.0.0.7-30.0.0.0, 30.0.0.2-126.255.255.255 and others");
  EXPECT_EQ(
      FateByMatch(Payload("ip", "saddr"), R"({"prefix": {"addr": "192.0.0.0", "len": 2}})", "!="),
      "accepted 192.0.0.0/3; dropped 1.0.0.0-126.255.255.255, 128.0.0.0/2");
}

TEST(PacketFilterTest, EndlessListsAreNotGoneThrough) {
  std::string bad;
  for (int i = 0; i < 2001; ++i) {
    bad += (i == 0 ? "\"" : ", \"") + std::to_string(10 + i / 250) + "." + std::to_string(i % 250) +
           ".0.1\"";
  }
  EXPECT_EQ(FateByMatch(Payload("ip", "saddr"), R"({"set": [)" + bad + "]}"), "not understood");
}

}  // namespace
}  // namespace inspect
