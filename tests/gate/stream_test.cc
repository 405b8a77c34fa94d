#include "gate/stream.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/gate/gates.h"
#include "tests/gate/recorded_run.h"
#include "tests/support/bytes.h"

namespace {

using gate::LinkId;
using gate::Opening;
using gate::Reason;
using gate::Stream;
using gate::Time;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::StartsWith;
using State = Stream::State;

constexpr char kNewOpening[] = "'vkgate' 01 00  01 00 00 00  00 00 00 00  16*(00)  8*(00)  8*(00)";

// Bytes that do not repeat soon: what is lost, doubled or moved shows.
std::string Pattern(std::size_t size, unsigned seed = 1) {
  std::string bytes;
  unsigned state = seed;
  for (std::size_t i = 0; i < size; ++i) {
    state = state * 1664525 + 1013904223;
    bytes.push_back(static_cast<char>(state >> 24));
  }
  return bytes;
}

void ExpectAllHeard(const Gates& gates, const std::string& where = "") {
  for (const From side : {kMaster, kDaemon}) {
    ASSERT_TRUE(gates.heard(side) == gates.said(side)) << where;
    ASSERT_TRUE(gates.heard_end(side)) << where;
  }
}

// Comes back until both gates say that the link has finished.
void RunToTheEnd(Gates& gates) {
  gates.Run();
  for (int i = 0; i < 3 && gates.connecting().state() != State::kEnded; ++i) {
    gates.Connect();
    gates.Run();
  }
}

void ExpectFinished(Gates& gates, const std::string& where = "") {
  for (const From side : {kMaster, kDaemon}) {
    ASSERT_EQ(gates.at(side).state(), State::kEnded) << where;
    ASSERT_EQ(gates.at(side).reason(), Reason::kFinished) << where;
  }
}

TEST(StreamTest, BytesAndEndsPassBothWays) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, "question");
  gates.Say(kDaemon, "answer");
  gates.Run();
  EXPECT_EQ(gates.heard(kMaster), "question");
  EXPECT_EQ(gates.heard(kDaemon), "answer");
  gates.End(kMaster);
  gates.Run();
  EXPECT_TRUE(gates.heard_end(kMaster));
  EXPECT_FALSE(gates.heard_end(kDaemon));
  gates.Say(kDaemon, ", and more");
  gates.End(kDaemon);
  gates.Run();
  ExpectAllHeard(gates);
  ExpectFinished(gates);
}

TEST(StreamTest, RecordedRunCutAtEveryByteIsTheUncutRun) {
  const std::vector<Said> run = RecordedRun();
  Gates uncut;
  uncut.Connect();
  Play(run, uncut);
  ExpectAllHeard(uncut);
  for (const From side : {kMaster, kDaemon}) {
    ASSERT_GT(uncut.crossed(side), 500U);
    for (std::size_t place = 0; place <= uncut.crossed(side); ++place) {
      const std::string where =
          (side == kMaster ? "from the master " : "from the daemon ") + std::to_string(place);
      Gates gates;
      gates.Connect();
      gates.CutAt(side, place);
      Play(run, gates);
      ASSERT_EQ(gates.cuts(), place < uncut.crossed(side) ? 1 : 0) << where;
      for (const From from : {kMaster, kDaemon}) {
        ASSERT_TRUE(gates.heard(from) == uncut.heard(from)) << where;
      }
      ExpectAllHeard(gates, where);
      ExpectFinished(gates, where);
    }
  }
}

// Once to a connection that is cut, and a second time to the one that replaces it.
TEST(StreamTest, RunIsCutTwiceAtAnyTwoBytes) {
  const std::string text = Pattern(40);
  for (std::size_t first = 0; first < 200; ++first) {
    for (std::size_t second = 0; second < 150; second += 3) {
      const std::string where = std::to_string(first) + " and " + std::to_string(second);
      Gates gates;
      gates.Connect();
      gates.CutAt(first % 2 == 0 ? kMaster : kDaemon, first / 2);
      gates.Say(kMaster, text);
      gates.Say(kDaemon, text);
      gates.End(kMaster);
      gates.End(kDaemon);
      gates.Run(16);
      if (!gates.up()) {
        gates.Connect();
        gates.CutAt(second % 2 == 0 ? kMaster : kDaemon,
                    gates.crossed(second % 2 == 0 ? kMaster : kDaemon) + second / 2);
        gates.Run(16);
      }
      RunToTheEnd(gates);
      ExpectAllHeard(gates, where);
      ExpectFinished(gates, where);
    }
  }
}

TEST(StreamTest, TenResumptionsInARowWithDataBetween) {
  Gates gates;
  gates.Connect();
  gates.Run();
  for (int i = 0; i < 10; ++i) {
    gates.Say(kMaster, Pattern(1000, 2U * static_cast<unsigned>(i)));
    gates.Say(kDaemon, Pattern(1000, 2U * static_cast<unsigned>(i) + 1));
    // Cut while all of it is under way, half of it has arrived, or all of it.
    gates.Once(16384);
    if (i % 3 > 0) gates.Run(500);
    if (i % 3 > 1) gates.Run();
    gates.Connect();
    gates.Run();
    ASSERT_EQ(gates.heard(kMaster), gates.said(kMaster)) << i;
    ASSERT_EQ(gates.heard(kDaemon), gates.said(kDaemon)) << i;
  }
  gates.End(kMaster);
  gates.End(kDaemon);
  gates.Run();
  ExpectAllHeard(gates);
  ExpectFinished(gates);
}

TEST(StreamTest, TenResumptionsInARowWithoutData) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, "once");
  gates.Run();
  for (int i = 0; i < 10; ++i) {
    gates.Connect();
    // The first five get as far as the answer, the others are gone before it.
    if (i < 5) gates.Run();
  }
  gates.Connect();
  gates.Say(kDaemon, "well");
  gates.Run();
  EXPECT_EQ(gates.heard(kMaster), "once");
  EXPECT_EQ(gates.heard(kDaemon), "well");
  EXPECT_EQ(gates.table().links().begin()->second.resumptions, 6U);
}

TEST(StreamTest, HalfCloseStaysThroughResumptions) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, "all I have");
  gates.End(kMaster);
  gates.Give(kMaster, 100);
  gates.Give(kMaster, 0);
  gates.Cut();
  gates.Connect();
  gates.Run();
  EXPECT_TRUE(gates.heard_end(kMaster));
  for (int i = 0; i < 3; ++i) {
    gates.Connect();
    gates.Say(kDaemon, "more of mine");
    gates.Run();
    EXPECT_EQ(gates.heard(kDaemon), gates.said(kDaemon));
    EXPECT_FALSE(gates.heard_end(kDaemon));
    EXPECT_EQ(gates.connecting().RoomForLocal(), 0U);
  }
  gates.End(kDaemon);
  gates.Connect();
  gates.Run();
  ExpectAllHeard(gates);
  ExpectFinished(gates);
}

TEST(StreamTest, WithoutAConnectionTheWindowPushesBack) {
  Gates gates({.window = 1000});
  gates.Connect();
  gates.Run();
  gates.Cut();
  gates.Say(kMaster, Pattern(5000));
  while (gates.Give(kMaster, 300)) {
  }
  EXPECT_EQ(gates.said(kMaster).size(), 1000U);
  EXPECT_EQ(gates.connecting().RoomForLocal(), 0U);
  gates.Connect();
  gates.Run();
  EXPECT_EQ(gates.heard(kMaster), Pattern(5000));
}

TEST(StreamTest, LocalSideThatTakesNothingHoldsTheOtherOne) {
  Gates gates({.window = 1000});
  gates.Connect();
  gates.Say(kMaster, Pattern(5000));
  for (int i = 0; i < 50; ++i) {
    gates.Give(kMaster, 300);
    gates.Send(kMaster, 300);
    gates.Arrive(kMaster, 300);
    gates.Send(kDaemon, 300);
    gates.Arrive(kDaemon, 300);
  }
  EXPECT_EQ(gates.said(kMaster).size(), 1000U);
  EXPECT_EQ(gates.serving().kept(), 1000U);
  gates.Run();
  EXPECT_EQ(gates.heard(kMaster), Pattern(5000));
}

// Two full windows that both have to be sent again, over a wire that takes a few bytes at a time:
// an end that sent all of its own before it read would wait for ever.
TEST(StreamTest, BothEndsResendAtOnce) {
  Gates gates({.window = 100'000});
  gates.Connect();
  gates.Run();
  gates.Say(kMaster, Pattern(100'000, 1));
  gates.Say(kDaemon, Pattern(100'000, 2));
  gates.Give(kMaster, 100'000);
  gates.Give(kDaemon, 100'000);
  for (int i = 0; i < 10; ++i) {
    gates.Send(kMaster, 16384);
    gates.Send(kDaemon, 16384);
  }
  gates.Connect();
  gates.Run(100);
  EXPECT_EQ(gates.heard(kMaster), Pattern(100'000, 1));
  EXPECT_EQ(gates.heard(kDaemon), Pattern(100'000, 2));
}

TEST(StreamTest, IdleLinkKeepsNothing) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, Pattern(100'000));
  gates.Run();
  EXPECT_EQ(gates.connecting().kept(), 100'000U);
  EXPECT_EQ(gates.serving().WakeAt(), gates.now + seconds(1));
  gates.now += seconds(1);
  EXPECT_TRUE(gates.serving().OnTime(gates.now));
  gates.Run();
  EXPECT_EQ(gates.connecting().kept(), 0U);
  EXPECT_EQ(gates.serving().kept(), 0U);
}

// A network that takes nothing for minutes: what is due waits for it, and no timer runs meanwhile.
TEST(StreamTest, WhatCannotBeSentKeepsNoTimerBusy) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, "x");
  gates.Run();
  gates.now += seconds(1);
  EXPECT_TRUE(gates.serving().OnTime(gates.now));
  EXPECT_EQ(gates.serving().WakeAt(), gates.now + seconds(19));
  EXPECT_TRUE(gates.serving().HasForWire(gates.serving().epoch()));
}

TEST(StreamTest, QuarterOfAWindowIsAcknowledgedAtOnce) {
  Gates gates({.window = 1000});
  gates.Connect();
  gates.Say(kMaster, Pattern(249));
  gates.Run();
  EXPECT_EQ(gates.connecting().kept(), 249U);
  gates.Say(kMaster, "1");
  gates.Run();
  EXPECT_EQ(gates.connecting().kept(), 0U);
}

TEST(StreamTest, WhatCameBackFromTheOldConnectionIsNotListenedTo) {
  Gates gates;
  gates.Connect();
  gates.Run();
  Stream& serving = gates.serving();
  const std::uint64_t old_epoch = serving.epoch();
  gates.Connect();
  gates.Run();
  ASSERT_GT(serving.epoch(), old_epoch);
  EXPECT_FALSE(serving.FromWire(old_epoch, Bytes("ff"), gates.now));
  serving.Broken(old_epoch);
  char room[64];
  gates.Say(kDaemon, "x");
  gates.Give(kDaemon, 1);
  EXPECT_FALSE(serving.HasForWire(old_epoch));
  EXPECT_EQ(serving.ForWire(old_epoch, room, sizeof(room)), 0U);
  EXPECT_EQ(serving.state(), State::kAttached);
  gates.Run();
  EXPECT_EQ(gates.heard(kDaemon), "x");
}

// A connection that is still there while the next one comes, as when only the client's side has
// seen that the network has gone.
TEST(StreamTest, NewConnectionReplacesOneThatStillLives) {
  Stream serving(LinkId{{1}}, {});
  ASSERT_TRUE(serving.Accept(Opening{}, Time(0)));
  serving.FromLocal("abc");
  std::string first(100, '\0');
  first.resize(serving.ForWire(0, first.data(), first.size()));
  EXPECT_THAT(first.substr(40), StartsWith(Bytes("01 03 00 00 00 8*(00) 'abc'")));
  ASSERT_TRUE(serving.Accept(Opening{.id = LinkId{{1}}, .epoch = 7, .received = 2}, Time(0)));
  std::string second(100, '\0');
  second.resize(serving.ForWire(7, second.data(), second.size()));
  EXPECT_EQ(second.substr(40), Bytes("01 01 00 00 00 02 7*(00) 'c'"));
}

TEST(StreamTest, OpeningOfBytesThatWereNeverSentChangesNothing) {
  Stream serving(LinkId{{1}}, {});
  ASSERT_TRUE(serving.Accept(Opening{}, Time(0)));
  serving.FromLocal("abc");
  char room[100];
  serving.ForWire(0, room, sizeof(room));
  EXPECT_FALSE(serving.Accept(Opening{.id = LinkId{{1}}, .epoch = 7, .received = 4}, Time(0)));
  EXPECT_EQ(serving.epoch(), 0U);
  EXPECT_EQ(serving.state(), State::kAttached);
  ASSERT_TRUE(serving.FromWire(0, Bytes("02 02 7*(00)"), Time(0)));  // ACK of two
  EXPECT_FALSE(serving.Accept(Opening{.id = LinkId{{1}}, .epoch = 7, .received = 1}, Time(0)));
  EXPECT_TRUE(serving.Accept(Opening{.id = LinkId{{1}}, .epoch = 7, .received = 2}, Time(0)));
}

// Each is sent by a gate whose peer has received "abc" and sent "xyz" of which two were taken.
struct Hostile {
  const char* name;
  const char* bytes;
};
std::string NameOf(const testing::TestParamInfo<Hostile>& hostile) {
  return hostile.param.name;
}

class HostileFrameTest : public testing::TestWithParam<Hostile> {};

TEST_P(HostileFrameTest, EndsTheLink) {
  Stream serving(LinkId{{1}}, {.window = 1000});
  serving.Accept(Opening{}, Time(0));
  serving.FromLocal("xyz");
  char room[200];
  serving.ForWire(0, room, sizeof(room));
  ASSERT_TRUE(serving.FromWire(0, Bytes("01 03 00 00 00 8*(00) 'abc'  02 02 7*(00)"), Time(0)));
  EXPECT_FALSE(serving.FromWire(0, Bytes(GetParam().bytes), Time(0)));
  EXPECT_EQ(serving.state(), State::kEnded);
  EXPECT_EQ(serving.reason(), Reason::kBrokenRules);
  EXPECT_EQ(Hex({room, serving.ForWire(0, room, sizeof(room))}), "06 01");
  EXPECT_EQ(serving.kept(), 0U);
  EXPECT_FALSE(serving.FromWire(0, Bytes("04"), Time(0)));
  EXPECT_EQ(serving.ForWire(0, room, sizeof(room)), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    , HostileFrameTest,
    testing::Values(
        Hostile{"DataAhead", "01 01 00 00 00 04 7*(00) 'd'"},
        Hostile{"DataThatOverlaps", "01 01 00 00 00 02 7*(00) 'c'"},
        Hostile{"DataAtTheLastPlace", "01 01 00 00 00 8*(ff) 'd'"},
        Hostile{"EmptyData", "01 00 00 00 00 03 7*(00)"},
        Hostile{"DataBeyondTheWindow", "01 e6 03 00 00 03 7*(00)"},
        Hostile{"DataOfFourGigabytes", "01 ff ff ff ff 03 7*(00)"},
        Hostile{"AckOfWhatWasNotSent", "02 04 7*(00)"}, Hostile{"AckOfEverything", "02 8*(ff)"},
        Hostile{"AckThatGoesBack", "02 01 7*(00)"}, Hostile{"EndAhead", "03 04 7*(00)"},
        Hostile{"EndTooSoon", "03 02 7*(00)"}, Hostile{"SecondEnd", "03 03 7*(00)  03 04 7*(00)"},
        Hostile{"DataAfterTheEnd", "03 03 7*(00)  01 01 00 00 00 04 7*(00) 'd'"},
        Hostile{"FrameOfNoKind", "00"}, Hostile{"FrameOfAnUnknownKind", "09"},
        Hostile{"PlainWhereNothingIsReadAhead", "08"}, Hostile{"GoneBeforeTheEnd", "07 03 7*(00)"},
        Hostile{"GoneElsewhere", "03 03 7*(00)  07 05 7*(00)"},
        Hostile{"GoneTwice", "03 03 7*(00)  07 04 7*(00)  07 05 7*(00)"},
        Hostile{"OpeningAgain", kNewOpening}),
    NameOf);

TEST(StreamTest, WindowsLastByteIsTaken) {
  Stream serving(LinkId{{1}}, {.window = 1000});
  serving.Accept(Opening{}, Time(0));
  EXPECT_TRUE(serving.FromWire(0, Bytes("01 e8 03 00 00 8*(00) 1000*(41)"), Time(0)));
  EXPECT_FALSE(serving.FromWire(0, Bytes("01 01 00 00 00 e8 03 6*(00) 41"), Time(0)));
}

TEST(StreamTest, PlainIsForTheConnectingGateToSay) {
  Gates gates;
  gates.Connect();
  gates.Run();
  ASSERT_TRUE(gates.connecting().ahead());
  gates.under_way(kDaemon) += Bytes("08");
  gates.Run();
  EXPECT_EQ(gates.connecting().reason(), Reason::kBrokenRules);
}

TEST(StreamTest, FinishedIsForTheServingGateToSay) {
  Gates gates;
  gates.Connect();
  gates.End(kMaster);
  gates.Run();
  gates.under_way(kMaster) += Bytes("06 00");
  gates.Run();
  EXPECT_EQ(gates.serving().state(), State::kEnded);
  EXPECT_EQ(gates.serving().reason(), Reason::kBrokenRules);
}

// Not so where both have agreed to read ahead, whether there is still somebody to read for or not.
TEST(StreamTest, PlainIsTakenWhenTheDaemonHasGone) {
  for (const bool gone : {false, true}) {
    Stream serving(LinkId{{1}}, {});
    ASSERT_TRUE(serving.Accept(Opening{.ahead = true}, Time(0)));
    if (gone) serving.LocalBroke();
    EXPECT_TRUE(serving.FromWire(0, Bytes("08"), Time(0)));
    EXPECT_EQ(serving.state(), State::kAttached);
  }
}

// Only the serving gate may say that a link has finished, and only when it has.
TEST(StreamTest, FinishedTooSoonIsABrokenRule) {
  Gates gates;
  gates.Connect();
  gates.Say(kDaemon, "not all of it");
  gates.Run();
  gates.under_way(kDaemon) += Bytes("06 00");
  gates.Run();
  EXPECT_EQ(gates.connecting().state(), State::kEnded);
  EXPECT_EQ(gates.connecting().reason(), Reason::kBrokenRules);
}

class HostileAnswerTest : public testing::TestWithParam<Hostile> {};

TEST_P(HostileAnswerTest, EndsTheLink) {
  Stream connecting({});
  const std::uint64_t epoch = connecting.Connect(Time(0));
  connecting.FromLocal("abc");
  char room[200];
  EXPECT_EQ(connecting.ForWire(epoch, room, sizeof(room)), Opening::kSize);
  EXPECT_FALSE(connecting.FromWire(epoch, Bytes(GetParam().bytes), Time(0)));
  EXPECT_EQ(connecting.state(), State::kEnded);
}

INSTANTIATE_TEST_SUITE_P(
    , HostileAnswerTest,
    testing::Values(Hostile{"NoGate", "'HTTP/1.1 400 Bad Request                '"},
                    Hostile{"AnotherVersion", "'vkgate' 02 00 8*(00) 01 15*(00) 8*(00)"},
                    Hostile{"NoId", "'vkgate' 01 00 8*(00) 16*(00) 8*(00)"},
                    Hostile{"BytesThatWereNotSent", "'vkgate' 01 00 8*(00) 01 15*(00) 01 7*(00)"},
                    Hostile{"VerdictOfNoMeaning", "'vkgate' 01 00 0d 7*(00) 01 15*(00) 8*(00)"},
                    Hostile{"Refusal", "'vkgate' 01 00 04 7*(00) 24*(00)"}),
    NameOf);

TEST(StreamTest, AnotherLinksAnswerEndsTheLink) {
  Gates gates;
  gates.Connect();
  gates.Run();
  const std::uint64_t epoch = gates.connecting().Connect(gates.now);
  EXPECT_FALSE(gates.connecting().FromWire(epoch, Bytes("'vkgate' 01 00 8*(00) 02 15*(00) 8*(00)"),
                                           gates.now));
  EXPECT_EQ(gates.connecting().reason(), Reason::kBrokenRules);
}

TEST(StreamTest, BusyGateIsComeBackTo) {
  Gates gates;
  gates.Connect();
  gates.Run();
  const std::uint64_t epoch = gates.connecting().Connect(gates.now);
  EXPECT_FALSE(gates.connecting().FromWire(epoch, gate::Refusal(Reason::kBusy), gates.now));
  EXPECT_EQ(gates.connecting().state(), State::kDetached);
  gates.Connect();
  gates.Say(kMaster, "here again");
  gates.Run();
  EXPECT_EQ(gates.heard(kMaster), "here again");
}

// The two bytes that tell the connecting gate are lost.
TEST(StreamTest, LinkThatHasFinishedIsNotUnknown) {
  const auto run = [](Gates& gates) {
    gates.Connect();
    gates.Say(kMaster, "all");
    gates.End(kMaster);
    gates.End(kDaemon);
    gates.Run();
  };
  Gates gates;
  run(gates);
  ExpectFinished(gates);
  Gates late;
  late.CutAt(kDaemon, gates.crossed(kDaemon) - 2);
  run(late);
  EXPECT_EQ(late.serving().state(), State::kEnded);
  EXPECT_EQ(late.connecting().state(), State::kDetached);
  late.Connect();
  late.Run();
  ExpectFinished(late);
}

TEST(StreamTest, LocalSocketThatFailsClosesTheOtherOneAfterWhatItHasSaid) {
  for (const From broken : {kMaster, kDaemon}) {
    const From other = broken == kMaster ? kDaemon : kMaster;
    for (const bool ended_before : {false, true}) {
      Gates gates({.window = 1000});
      gates.Connect();
      gates.Run();
      gates.Say(other, Pattern(3000));
      gates.Say(broken, "last words");
      if (ended_before) gates.End(broken);
      gates.Give(broken, 100);
      gates.Give(broken, 0);
      gates.Once(300);
      gates.Cut();
      gates.Break(broken);
      EXPECT_EQ(gates.at(broken).ForLocal(), "");
      gates.Connect();
      gates.Run();
      EXPECT_EQ(gates.heard(broken), "last words");
      EXPECT_TRUE(gates.heard_end(broken));
      EXPECT_TRUE(gates.heard_break(broken));
      EXPECT_FALSE(gates.heard_break(other));
      ExpectFinished(gates);
    }
  }
}

TEST(StreamTest, BothLocalSocketsFail) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, "x");
  gates.Say(kDaemon, "y");
  gates.Run();
  gates.Break(kMaster);
  gates.Break(kDaemon);
  gates.Run();
  ExpectFinished(gates);
}

// The daemon's end has arrived before; then the master's socket fails, and the daemon's does while
// it has not taken all.
TEST(StreamTest, LocalSocketThatFailsLastFinishesTheLink) {
  Gates gates;
  gates.Connect();
  gates.Say(kDaemon, "y");
  gates.End(kDaemon);
  gates.Run();
  gates.now += seconds(1);
  gates.connecting().OnTime(gates.now);
  gates.Run();
  gates.Say(kMaster, "x");
  gates.Give(kMaster, 1);
  gates.Break(kMaster);
  while (gates.Send(kMaster, 100) || gates.Arrive(kMaster, 100)) {
  }
  EXPECT_EQ(gates.serving().ForLocal(), "x");
  EXPECT_FALSE(gates.serving().EndsLocal());
  EXPECT_FALSE(gates.serving().BreaksLocal());
  gates.Break(kDaemon);
  gates.Run();
  ExpectFinished(gates);
}

TEST(StreamTest, EndedLinkStaysAsItHasEnded) {
  Gates gates;
  gates.Connect();
  gates.Run();
  Stream& serving = gates.serving();
  serving.End(Reason::kNotValid);
  serving.FromLocal("more");
  serving.LocalTookEnd();
  serving.LocalBroke();
  serving.LocalBroke();
  serving.End(Reason::kFinished);
  EXPECT_EQ(serving.reason(), Reason::kNotValid);
  EXPECT_EQ(serving.kept(), 0U);
  EXPECT_EQ(serving.RoomForLocal(), 0U);
  EXPECT_EQ(serving.taken(), 0U);
}

TEST(StreamTest, LinkThatHasFinishedHearsNoMore) {
  Stream serving(LinkId{{1}}, {});
  serving.Accept(Opening{}, Time(0));
  serving.LocalBroke();
  char room[200];
  serving.ForWire(0, room, sizeof(room));  // its end, and that it has failed
  EXPECT_FALSE(serving.FromWire(0, Bytes("02 02 7*(00)  03 8*(00)  06 05"), Time(0)));
  EXPECT_EQ(serving.reason(), Reason::kFinished);
  EXPECT_EQ(Hex({room, serving.ForWire(0, room, sizeof(room))}), "06 00");
}

TEST(StreamTest, LocalSocketFailsOnce) {
  Gates gates;
  gates.Connect();
  gates.Run();
  gates.Break(kMaster);
  gates.Break(kMaster);
  gates.Run();
  EXPECT_TRUE(gates.heard_break(kMaster));
  ExpectFinished(gates);
}

TEST(StreamTest, DataThatFindNoRoomAfterAnAnswerFollowIt) {
  Stream serving(LinkId{{1}}, {.silence = seconds(60)});
  serving.Accept(Opening{}, Time(0));
  serving.FromLocal("abc");
  char room[64];
  ASSERT_EQ(serving.ForWire(0, room, sizeof(room)), 56U);
  ASSERT_TRUE(serving.FromWire(0, Bytes("01 03 00 00 00 8*(00) 'xyz'"), Time(0)));
  serving.LocalTook(serving.ForLocal().size(), Time(0));
  ASSERT_TRUE(serving.Accept(Opening{.id = LinkId{{1}}, .epoch = 7, .received = 2}, Time(0)));
  ASSERT_TRUE(serving.FromWire(7, Bytes("04"), Time(0)));
  ASSERT_TRUE(serving.OnTime(seconds(20)));
  const std::string first(room, serving.ForWire(7, room, sizeof(room)));
  EXPECT_EQ(Hex(first.substr(40)), "05 04 02 03 00 00 00 00 00 00 00");
  const std::string second(room, serving.ForWire(7, room, sizeof(room)));
  EXPECT_EQ(Hex(second), "01 01 00 00 00 02 00 00 00 00 00 00 00 63");
}

TEST(StreamTest, EndIsToldToTheOtherGate) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, "x");
  gates.Run();
  gates.serving().End(Reason::kNotValid);
  gates.Run();
  EXPECT_EQ(gates.connecting().state(), State::kEnded);
  EXPECT_EQ(gates.connecting().reason(), Reason::kNotValid);
}

TEST(StreamTest, ReasonsThatNoEndHasAreABrokenRule) {
  for (unsigned number = 0; number < 256; ++number) {
    Gates gates;
    gates.Connect();
    gates.Run();
    gates.under_way(kDaemon) += Bytes("06") + static_cast<char>(number);
    gates.Run();
    const bool has = number > 0 && number <= 11 && number != 10;
    EXPECT_EQ(gates.connecting().reason(), has ? Reason(number) : Reason::kBrokenRules);
  }
}

TEST(StreamTest, SilentConnectionIsAskedAndThenGivenUp) {
  Gates gates({.silence = seconds(60)});
  gates.Connect();
  gates.Run();
  Stream& gate = gates.connecting();
  EXPECT_EQ(gate.WakeAt(), gates.now + seconds(20));
  gates.now += seconds(20);
  EXPECT_TRUE(gate.OnTime(gates.now));
  gates.Send(kMaster, 100);
  EXPECT_EQ(Hex(gates.under_way(kMaster)), "04");
  gates.Arrive(kMaster, 1);
  gates.Send(kDaemon, 100);
  EXPECT_EQ(Hex(gates.under_way(kDaemon)), "05");
  gates.Arrive(kDaemon, 1);
  EXPECT_EQ(gate.WakeAt(), gates.now + seconds(20));
  gates.now += seconds(20);
  EXPECT_TRUE(gate.OnTime(gates.now));
  EXPECT_EQ(gate.WakeAt(), gates.now + seconds(40));
  gates.now += milliseconds(39'999);
  EXPECT_TRUE(gate.OnTime(gates.now));
  gates.now += milliseconds(1);
  EXPECT_FALSE(gate.OnTime(gates.now));
  EXPECT_EQ(gate.state(), State::kDetached);
  EXPECT_EQ(gate.WakeAt(), Time::max());
}

TEST(StreamTest, MachineThatHasSleptAsksFirst) {
  Gates gates;
  gates.Connect();
  gates.Say(kMaster, "x");
  gates.Run();
  gates.now += hours(9);
  EXPECT_TRUE(gates.connecting().OnTime(gates.now));
  EXPECT_EQ(gates.connecting().state(), State::kAttached);
  gates.Send(kMaster, 100);
  EXPECT_EQ(Hex(gates.under_way(kMaster)).substr(0, 2), "04");
  gates.Run();
  EXPECT_TRUE(gates.connecting().OnTime(gates.now + seconds(19)));
}

TEST(StreamTest, OpeningThatIsNotAnsweredIsGivenUp) {
  Gates gates({.silence = seconds(60)});
  gates.Connect();
  EXPECT_EQ(gates.connecting().WakeAt(), gates.now + seconds(40));
  EXPECT_FALSE(gates.connecting().OnTime(gates.now + seconds(40)));
  EXPECT_EQ(gates.connecting().state(), State::kDetached);
}

TEST(StreamTest, NobodyAsksForRecordsAheadUnlessBothWant) {
  for (const bool connecting : {false, true}) {
    for (const bool serving : {false, true}) {
      Stream client({.ahead = connecting});
      Stream server(LinkId{{1}}, {.ahead = serving});
      const std::uint64_t epoch = client.Connect(Time(0));
      std::string wire(100, '\0');
      wire.resize(client.ForWire(epoch, wire.data(), wire.size()));
      server.Accept(std::get<Opening>(gate::ReadOpening(wire)), Time(0));
      wire.resize(100);
      wire.resize(server.ForWire(0, wire.data(), wire.size()));
      client.FromWire(epoch, wire, Time(0));
      EXPECT_EQ(client.ahead(), connecting && serving);
      EXPECT_EQ(server.ahead(), connecting && serving);
    }
  }
}

}  // namespace
