// Who may go on with a link: connections of the test's own to the serving gate, below the stream.

#include <string>
#include <variant>

#include <gtest/gtest.h>

#include "gate/opening.h"
#include "tests/gate/door.h"
#include "tests/gate/echo_daemon.h"
#include "tests/gate/raw_gate.h"
#include "tests/support/bytes.h"

namespace {

using gate::Answer;
using gate::Opening;
using gate::Reason;

// Somebody with or without the right to a link. Each gate is beside an EchoDaemon, which greets
// with five bytes: 18 as a frame.
class TheftTest : public testing::Test {
 protected:
  RawGate Connect(const Identity& identity) {
    return RawGate(door_.serving().port(), identity, door_.authority().file());
  }

  static Answer Open(RawGate& gate, const Opening& opening) {
    gate.Say(BytesOf(opening));
    return std::get<Answer>(gate::ReadAnswer(gate.Hear(Answer::kSize)));
  }

  // A new link of alice's, whose greeting has come.
  gate::LinkId Begin(RawGate& alice) {
    const Answer answer = Open(alice, Opening{});
    EXPECT_TRUE(answer.accepted);
    EXPECT_EQ(alice.Hear(18), Bytes("01 05 00 00 00 8*(00) 01 00 00 00 '3'"));
    return answer.id;
  }

  // Why a connection of its own is refused, which is then closed.
  Reason RefusalOf(const Identity& identity, const Opening& opening) {
    RawGate gate = Connect(identity);
    const Answer answer = Open(gate, opening);
    EXPECT_FALSE(answer.accepted);
    EXPECT_EQ(gate.Hear(1), "");
    return answer.refusal;
  }

  EchoDaemon daemon_;
  Door door_{daemon_.port()};
};

TEST_F(TheftTest, LinkOfAnotherIsUnknownAndGoesOn) {
  RawGate alice = Connect(door_.alice());
  const gate::LinkId id = Begin(alice);
  const Identity bob = door_.authority().Issue("bob", {.upn = "bob@example.com"});
  EXPECT_EQ(RefusalOf(bob, {.id = id, .epoch = 1, .received = 5}), Reason::kUnknown);
  EXPECT_TRUE(alice.IsAnswered());
  EXPECT_TRUE(door_.serving().Lines("broken").empty());
}

// Without a name it is the certificate itself that tells one from another.
TEST_F(TheftTest, LinkOfACertificateWithoutNamesIsThatCertificatesAlone) {
  const Identity nameless = door_.authority().Issue("nameless", {});
  const Identity other = door_.authority().Issue("other", {});
  RawGate first = Connect(nameless);
  const Opening again{.id = Begin(first), .epoch = 1, .received = 5};
  EXPECT_EQ(RefusalOf(other, again), Reason::kUnknown);
  EXPECT_EQ(RefusalOf(door_.authority().Renew(nameless, "renewed", {}), again), Reason::kUnknown);
  RawGate second = Connect(nameless);
  EXPECT_TRUE(Open(second, again).accepted);
}

TEST_F(TheftTest, LinkWhoseClaimWasDeniedDoesNotComeBack) {
  RawGate alice = Connect(door_.alice());
  const Opening again{.id = Begin(alice), .epoch = 1, .received = 5};
  const std::string claim = Handshake("bob");
  alice.Say(Bytes("01") + Image(static_cast<std::uint32_t>(claim.size())) + Bytes("8*(00)") +
            claim);
  door_.serving().Await("denied");
  EXPECT_EQ(RefusalOf(door_.alice(), again), Reason::kNotValid);
}

TEST_F(TheftTest, LinkThatNobodyHasIsUnknown) {
  EXPECT_EQ(RefusalOf(door_.alice(), {.id = {{0, 0, 0, 7}}, .epoch = 1}), Reason::kUnknown);
}

TEST_F(TheftTest, OpeningIsAcceptedOnce) {
  RawGate first = Connect(door_.alice());
  const Opening again{.id = Begin(first), .epoch = 5, .received = 5};
  RawGate second = Connect(door_.alice());
  EXPECT_TRUE(Open(second, again).accepted);
  for (const std::uint64_t epoch : {5UL, 4UL, 1UL}) {
    Opening old = again;
    old.epoch = epoch;
    EXPECT_EQ(RefusalOf(door_.alice(), old), Reason::kOldEpoch);
  }
  EXPECT_TRUE(second.IsAnswered());
}

TEST_F(TheftTest, OfTwoThatResumeALinkTheLaterOneHasIt) {
  RawGate first = Connect(door_.alice());
  Opening opening{.id = Begin(first), .epoch = 1, .received = 5};
  RawGate second = Connect(door_.alice());
  EXPECT_TRUE(Open(second, opening).accepted);
  EXPECT_FALSE(first.IsAnswered());
  opening.epoch = 7;
  RawGate third = Connect(door_.alice());
  EXPECT_TRUE(Open(third, opening).accepted);
  EXPECT_FALSE(second.IsAnswered());
  EXPECT_TRUE(third.IsAnswered());
  EXPECT_EQ(door_.serving().Lines("resumed").size(), 2U);
}

TEST_F(TheftTest, OpeningOfBytesThatWereNeverSentLeavesTheLinkAlone) {
  RawGate alice = Connect(door_.alice());
  Opening opening{.id = Begin(alice), .epoch = 1};
  for (const std::uint64_t received : {6UL, 1000UL}) {
    opening.received = received;
    EXPECT_EQ(RefusalOf(door_.alice(), opening), Reason::kBrokenRules);
    EXPECT_TRUE(alice.IsAnswered());
  }
  opening.received = 5;
  RawGate right = Connect(door_.alice());
  EXPECT_TRUE(Open(right, opening).accepted);
}

TEST_F(TheftTest, OpeningInSingleBytesIsReadTheSame) {
  RawGate gate = Connect(door_.alice());
  for (const char byte : BytesOf(Opening{})) gate.Say({&byte, 1});
  EXPECT_TRUE(std::get<Answer>(gate::ReadAnswer(gate.Hear(Answer::kSize))).accepted);
}

TEST_F(TheftTest, GateOfAnotherVersionIsToldSo) {
  RawGate gate = Connect(door_.alice());
  gate.Say(Bytes("'vkgate' 02 00 40*(00)"));
  EXPECT_EQ(gate.Hear(Answer::kSize), gate::Refusal(Reason::kVersion));
  EXPECT_EQ(gate.Hear(1), "");
  EXPECT_EQ(door_.serving().Await("refused")["why"],
            "the other gate speaks another version of the stream");
}

TEST_F(TheftTest, GateThatLeavesBeforeItsOpeningIsToldOf) {
  Connect(door_.alice());
  const auto refused = door_.serving().Await("refused");
  EXPECT_EQ(refused["why"], "The connection has ended without a word");
  EXPECT_EQ(refused["names"][0], "upn:alice@example.com");
}

TEST_F(TheftTest, PeerThatIsNoGateIsLeftWithoutAnAnswer) {
  RawGate gate = Connect(door_.alice());
  gate.Say(std::string(Opening::kSize, 'x'));
  EXPECT_EQ(gate.Hear(1), "");
  EXPECT_EQ(door_.serving().Await("refused")["why"], "The peer is no gate");
}

TEST_F(TheftTest, FrameThatBreaksARuleEndsTheLinkAlone) {
  RawGate other = Connect(door_.alice());
  Begin(other);
  std::size_t ended = 0;
  for (const char* frame : {"02 ff 7*(00)", "100*(63)"}) {
    RawGate alice = Connect(door_.alice());
    Begin(alice);
    alice.Say(Bytes(frame));
    EXPECT_EQ(Hex(alice.Hear(10)), "06 01");
    EXPECT_EQ(door_.serving().Await("ended", ++ended)["how"],
              "the other gate broke the rules of the stream");
    EXPECT_TRUE(other.IsAnswered());
    EXPECT_TRUE(Eventually([&] { return daemon_.connections() == 1; }));
  }
}

}  // namespace
