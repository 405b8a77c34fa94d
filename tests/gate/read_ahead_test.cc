#include "gate/read_ahead.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/gate/daemon_model.h"
#include "tests/gate/gates.h"
#include "tests/gate/recorded_run.h"
#include "tests/support/bytes.h"

namespace {

using gate::ReadAhead;
using testing::ElementsAre;

const std::string kAskForRecord = Bytes("04 00 00 00 00 10 00 00");
const std::string kAskForTable = Bytes("04 00 00 00 01 10 00 00");

std::string Request(const std::string& hex) {
  return Frame(Bytes(hex));
}
std::string DataOf(int wells) {
  return Request("0a 00 00 00 " + Hex(Image(wells)));
}
std::string TablesOf(int wells) {
  return Request("10 00 00 00 00 00 00 00 " + Hex(Image(wells)) + " 01 8*(00)");
}

std::string Times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

// A master and a model of the daemon at the two ends of a pair of gates.
class ReadAheadTest : public testing::Test {
 protected:
  ReadAheadTest() { gates_.Connect(); }

  // What a master would hear of the daemon without gates.
  static std::string Directly(const std::string& master, const std::string& verdict = "OK|node17") {
    DaemonModel daemon(verdict);
    return DaemonModel::Greeting() + daemon.Take(master);
  }

  // Lets everything move; the daemon answers what it gets.
  void Run() {
    while (gates_.Once(piece_) || Answer() || ComeBack()) {
    }
  }

  bool ComeBack() {
    if (gates_.up() || gates_.connecting().state() == gate::Stream::State::kEnded) return false;
    gates_.Connect();
    return true;
  }

  bool Answer() {
    if (!gates_.HasServing()) return false;
    if (!greeted_) {
      greeted_ = true;
      gates_.Say(kDaemon, DaemonModel::Greeting());
      return true;
    }
    const std::string& heard = gates_.heard(kMaster);
    const bool more = answered_ < heard.size();
    gates_.Say(kDaemon, daemon_.Take(heard.substr(answered_)));
    answered_ = heard.size();
    if ((daemon_.ended() || gates_.heard_end(kMaster)) && !ended_) {
      ended_ = true;
      gates_.End(kDaemon);
      return true;
    }
    return more;
  }

  // The master says all of this, with pauses in which everything that can happen does.
  void Say(const std::string& bytes) {
    gates_.Say(kMaster, bytes);
    said_ += bytes;
    Run();
  }

  const std::string& Heard() { return gates_.heard(kDaemon); }

  // Begins an exchange, from which on the daemon has been asked for records before the master asks,
  // or has not.
  bool IsReadAheadFor(const std::string& request) {
    const std::size_t before = gates_.heard(kMaster).size();
    Say(request);
    return gates_.heard(kMaster).size() > before + request.size();
  }

  Gates gates_;
  DaemonModel daemon_;
  std::size_t piece_ = 1000;
  std::size_t answered_ = 0;
  bool greeted_ = false;
  bool ended_ = false;
  std::string said_;
};

TEST_F(ReadAheadTest, RecordsButTheLastAreThereBeforeTheyAreAskedFor) {
  for (const bool tables : {false, true}) {
    const std::string ask = tables ? kAskForTable : kAskForRecord;
    Say((tables ? "" : Handshake()) + (tables ? TablesOf(5) : DataOf(5)));
    EXPECT_EQ(Heard(), Directly(said_));
    const std::size_t crossed = gates_.crossed(kMaster);
    const std::size_t record = tables ? 216 : 36;
    const std::size_t before = Heard().size();
    // No byte more comes from the daemon's side.
    for (std::size_t i = 1; i < 5; ++i) {
      gates_.Say(kMaster, ask);
      said_ += ask;
      gates_.Give(kMaster, 100);
      gates_.Hear(kDaemon, 100'000);
      EXPECT_EQ(Heard().size(), before + i * record);
      EXPECT_EQ(Heard(), Directly(said_));
    }
    EXPECT_LE(gates_.crossed(kMaster), crossed + 9);  // At most an ACK.
    Say(ask);
    EXPECT_EQ(Heard(), Directly(said_));
    EXPECT_EQ(Heard().size(), before + 5 * record);
  }
  Say(Request("f0 ff 00 00"));
  EXPECT_EQ(Heard(), Directly(said_));
  EXPECT_TRUE(gates_.heard_end(kDaemon));
}

TEST_F(ReadAheadTest, NoRecordAndOneRecord) {
  Say(Handshake());
  for (const int wells : {0, 1, -3, 0, 1, 2}) {
    Say(DataOf(wells));
    for (int i = 0; i < wells; ++i) Say(kAskForRecord);
    Say(TablesOf(wells));
    for (int i = 0; i < wells; ++i) Say(kAskForTable);
    Say(Request("04 00 00 00"));
    EXPECT_EQ(Heard(), Directly(said_)) << wells;
  }
}

TEST_F(ReadAheadTest, MasterThatSendsEverythingAtOnceGetsTheSame) {
  Say(Handshake() + DataOf(7) + Times(7, kAskForRecord) + Request("04 00 00 00") + TablesOf(3) +
      Times(3, kAskForTable) + DataOf(0) + DataOf(1) + kAskForRecord + Request("f0 ff 00 00"));
  EXPECT_EQ(Heard(), Directly(said_));
  EXPECT_TRUE(gates_.heard_end(kDaemon));
}

TEST_F(ReadAheadTest, MasterThatAsksAheadItselfIsReadAheadForOnce) {
  for (const bool tables : {false, true}) {
    const std::string& ask = tables ? kAskForTable : kAskForRecord;
    for (std::size_t one_by_one = 0; one_by_one <= 5; ++one_by_one) {
      ReadAheadTest_MasterThatAsksAheadItselfIsReadAheadForOnce_Test other;
      other.Say(Handshake());
      EXPECT_TRUE(other.IsReadAheadFor(tables ? TablesOf(5) : DataOf(5)));
      for (std::size_t i = 0; i < one_by_one; ++i) other.Say(ask);
      other.Say(Times(static_cast<int>(5 - one_by_one), ask));
      const bool asks_ahead = one_by_one < 4;
      EXPECT_EQ(other.IsReadAheadFor(DataOf(2)), !asks_ahead) << one_by_one;
      other.Say(kAskForRecord);
      other.Say(kAskForRecord);
      EXPECT_EQ(other.IsReadAheadFor(TablesOf(2)), !asks_ahead) << one_by_one;
      other.Say(Times(2, kAskForTable) + Request("f0 ff 00 00"));
      EXPECT_EQ(other.Heard(), Directly(other.said_));
      EXPECT_TRUE(other.gates_.heard_end(kDaemon));
    }
  }
}

TEST_F(ReadAheadTest, MasterThatAsksAheadHearsTheSameThroughACutAtAnyByte) {
  using Run = ReadAheadTest_MasterThatAsksAheadHearsTheSameThroughACutAtAnyByte_Test;
  const auto hear = [](Run& run, From side, std::size_t place) {
    run.Say(Handshake());
    run.gates_.CutAt(side, run.gates_.crossed(side) + place);
    run.Say(DataOf(4) + Times(3, kAskForRecord));
    run.Say(kAskForRecord + TablesOf(3));
    run.Say(Times(3, kAskForTable));
    run.Say(Request("f0 ff 00 00"));
    EXPECT_EQ(run.Heard(), Directly(run.said_)) << side << " at " << place;
    EXPECT_TRUE(run.gates_.heard_end(kDaemon)) << side << " at " << place;
    // Nothing of the tables was asked for by the gate, and the records were asked for once.
    EXPECT_EQ(run.gates_.heard(kMaster).size(), run.said_.size()) << side << " at " << place;
    return run.gates_.cuts() == 1;
  };
  for (const From side : {kMaster, kDaemon}) {
    std::size_t place = 0;
    for (bool cut = true; cut; ++place) {
      Run other;
      cut = hear(other, side, place);
    }
    EXPECT_GT(place, 100U);
  }
}

// It takes PLAIN for a broken rule.
TEST_F(ReadAheadTest, OlderServingGateIsNotToldThatTheMasterAsksAhead) {
  gates_.Send(kMaster, 100);
  gates_.Arrive(kMaster, 100);
  gates_.Send(kDaemon, 100);
  gates_.under_way(kDaemon)[12] = 1;  // the flags of its answer
  Say(Handshake());
  EXPECT_TRUE(IsReadAheadFor(DataOf(5)));
  Say(Times(5, kAskForRecord));
  EXPECT_TRUE(IsReadAheadFor(DataOf(5)));
  Say(Times(5, kAskForRecord));
  EXPECT_EQ(Heard(), Directly(said_));
}

TEST_F(ReadAheadTest, BytesInAnyPieces) {
  for (const std::size_t piece : {1UL, 2UL, 3UL, 5UL, 7UL, 8UL, 9UL, 13UL}) {
    ReadAheadTest_BytesInAnyPieces_Test other;
    other.piece_ = piece;
    other.Say(Handshake() + DataOf(4) + Times(4, kAskForRecord) + TablesOf(2) +
              Times(2, kAskForTable) + Request("f0 ff 00 00"));
    EXPECT_EQ(other.Heard(), Directly(other.said_)) << piece;
    EXPECT_TRUE(other.gates_.heard_end(kDaemon)) << piece;
  }
}

// Many wells: more than the daemon is asked for at once.
TEST_F(ReadAheadTest, DaemonIsAskedForSoManyAtOnce) {
  ReadAhead reader(ReadAhead::End::kServing);
  const auto from_master = [&](std::string bytes) {
    while (!bytes.empty()) bytes.erase(0, reader.FromMaster(bytes, false).count);
  };
  const auto from_daemon = [&](std::string bytes) {
    while (!bytes.empty()) bytes.erase(0, reader.FromDaemon(bytes, false).count);
  };
  from_daemon(DaemonModel::Greeting());
  from_master(Handshake());
  from_daemon(PackedText("OK|x"));
  from_master(DataOf(1000));
  EXPECT_EQ(reader.ToAsk(), "");
  from_daemon(Frame(Bytes("0a 00 00 00 e8 03 00 00 00 00 00 00")));
  std::size_t asked = 0;
  const auto ask = [&] {
    while (!reader.ToAsk().empty()) {
      asked += reader.ToAsk().size();
      reader.Asked(reader.ToAsk().size());
    }
  };
  ask();
  EXPECT_EQ(asked, 256U * 8);
  const std::string record = Frame(Bytes("00 10 00 00 20*(00)"));
  std::vector<std::size_t> asked_after;  // so many answers
  std::vector<std::size_t> requests;
  for (std::size_t i = 1; i <= 999; ++i) {
    const std::size_t before = asked;
    from_daemon(record);
    ask();
    if (asked == before) continue;
    asked_after.push_back(i);
    requests.push_back((asked - before) / 8);
  }
  // In batches, so that the two do not wake each other for every record.
  EXPECT_THAT(asked_after, ElementsAre(64, 128, 192, 256, 320, 384, 448, 512, 576, 640, 704, 743));
  EXPECT_THAT(requests, ElementsAre(64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 39));
  EXPECT_EQ(asked, 999U * 8);
  EXPECT_EQ(reader.FromMaster(kAskForRecord, false).count, 8U);
}

TEST_F(ReadAheadTest, LargeTablesAreAskedForOneByOne) {
  ReadAhead reader(ReadAhead::End::kServing);
  const auto pass = [&](std::string bytes, bool master) {
    while (!bytes.empty()) {
      bytes.erase(
          0, (master ? reader.FromMaster(bytes, false) : reader.FromDaemon(bytes, false)).count);
    }
  };
  pass(DaemonModel::Greeting(), false);
  pass(Handshake(), true);
  pass(PackedText("OK|x"), false);
  pass(Request("10 00 00 00 ff ff ff 7f 05 00 00 00 01 8*(00)"), true);
  pass(Frame(Bytes("10 00 00 00 05 00 00 00 0a 00 00 00 00 00 00 00")), false);
  EXPECT_EQ(reader.ToAsk(), kAskForTable);
  reader.Asked(3);
  EXPECT_EQ(reader.ToAsk(), kAskForTable.substr(3));
  reader.Asked(5);
  EXPECT_EQ(reader.ToAsk(), "");
  pass(Frame(Bytes("01 10 00 00 00 00 00 00")), false);
  EXPECT_EQ(reader.ToAsk(), kAskForTable);
}

// What a master may send in place of a request for a record. The run ends there, as without gates,
// or goes on where the daemon takes it for such a request.
class DeviationTest : public ReadAheadTest, public testing::WithParamInterface<std::string> {};

TEST_P(DeviationTest, IsAsWithoutGatesAtAnyRecord) {
  const std::string deviation = Bytes(GetParam());
  for (const bool tables : {false, true}) {
    const std::string ask = tables ? kAskForTable : kAskForRecord;
    for (const int wells : {1, 2, 4}) {
      for (int asked = 0; asked < wells; ++asked) {
        for (const std::size_t piece : {3UL, 1000UL}) {
          for (const bool at_once : {false, true}) {
            DeviationTest_IsAsWithoutGatesAtAnyRecord_Test other;
            other.piece_ = piece + deviation.size() / 50;
            const std::string begin = Handshake() + (tables ? TablesOf(wells) : DataOf(wells));
            if (at_once) {
              std::string all = begin;
              all.append(Times(asked, ask)).append(deviation);
              other.gates_.Say(kMaster, all);
              other.said_ = all;
            } else {
              other.Say(begin);
              for (int i = 0; i < asked; ++i) other.Say(ask);
              other.Say(deviation);
            }
            other.gates_.End(kMaster);
            other.Run();
            const std::string where = std::to_string(wells) + " wells, " + std::to_string(asked) +
                                      " asked for, by the " + std::to_string(piece);
            ASSERT_EQ(Hex(other.Heard()), Hex(Directly(other.said_))) << where;
            ASSERT_TRUE(other.gates_.heard_end(kDaemon)) << where;
            ASSERT_EQ(other.gates_.connecting().state(), gate::Stream::State::kEnded) << where;
            ASSERT_EQ(other.gates_.connecting().reason(), gate::Reason::kFinished) << where;
          }
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    , DeviationTest,
    testing::Values("",                         // its end
                    "04 00 00 00 04 00 00 00",  // the time
                    "08 00 00 00 00 10 00 00 00 00 00 00", "08 00 00 00 01 10 00 00 00 00 00 00",
                    "04 00 00 00 02 10 00 00", "04 00 00", "04", "00 00 00 00", "02 00 00 00 00 10",
                    "03 00 00 00 01 10 00", "01 00 00 00 10", "00 00 01 00 00 10 00 00 65532*(00)",
                    "01 00 01 00 00 10 00 00", "ff ff ff 7f", "04 00 00 00 00 10 00 'nothing'",
                    "04 00 00 00 f0 ff 00 00", "0c 00 00 00 0a 00 00 00 03 00 00 00 00 00 00 00"));

TEST_F(ReadAheadTest, RefusedMasterHearsWhy) {
  for (const char* refusal : {"no such user", "", "OK"}) {
    Gates gates;
    gates.Connect();
    gates.Say(kDaemon, DaemonModel::Greeting());
    gates.Say(kMaster, Handshake());
    gates.Run();
    gates.Say(kDaemon, PackedText(refusal));
    gates.End(kDaemon);
    gates.Run();
    EXPECT_EQ(gates.heard(kDaemon), DaemonModel::Greeting() + PackedText(refusal));
    EXPECT_TRUE(gates.heard_end(kDaemon));
    gates.Say(kMaster, DataOf(4));
    gates.Run();
    EXPECT_EQ(gates.heard(kMaster), Handshake() + DataOf(4));
  }
}

// Other bytes than the protocol's pass as they are.
TEST_F(ReadAheadTest, OtherTalkPassesAsItIs) {
  for (const char* bytes : {"'GET / HTTP/1.1' 0d 0a 0d 0a", "16*(00)", "64*(ff)",
                            "ff ff 00 00 100*(41)", "00 80 00 00 32768*(41) 'and more'"}) {
    Gates gates;
    gates.Connect();
    gates.Say(kMaster, Bytes(bytes));
    gates.Say(kDaemon, Bytes(bytes));
    gates.End(kMaster);
    gates.End(kDaemon);
    gates.Run();
    EXPECT_EQ(gates.heard(kMaster), Bytes(bytes));
    EXPECT_EQ(gates.heard(kDaemon), Bytes(bytes));
    EXPECT_TRUE(gates.heard_end(kMaster) && gates.heard_end(kDaemon));
  }
}

// An answer that cannot be the one to the request ends the reading ahead, not the link.
TEST_F(ReadAheadTest, FirstReplyOfAnotherShapeEndsIt) {
  for (const char* reply :
       {"0a 00 00 00 05 00 00 00", "0a 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00",
        "0b 00 00 00 05 00 00 00 00 00 00 00", "0a"}) {
    Gates gates;
    gates.Connect();
    gates.Say(kDaemon, DaemonModel::Greeting());
    gates.Say(kMaster, Handshake());
    gates.Run();
    gates.Say(kDaemon, PackedText("OK|x"));
    gates.Run();
    gates.Say(kMaster, DataOf(5));
    gates.Run();
    gates.Say(kDaemon, Frame(Bytes(reply)));
    gates.Run();
    gates.Say(kMaster, kAskForRecord);
    gates.Say(kDaemon, "whatever");
    gates.Run();
    EXPECT_EQ(gates.heard(kMaster), gates.said(kMaster)) << reply;
    EXPECT_EQ(gates.heard(kDaemon), gates.said(kDaemon)) << reply;
  }
}

TEST_F(ReadAheadTest, RequestOfNoMeaningIsNotWaitedForAnAnswerTo) {
  for (const char* code : {"00 00 00 00", "15 00 00 00", "ff ff ff ff"}) {
    ReadAheadTest_RequestOfNoMeaningIsNotWaitedForAnAnswerTo_Test other;
    other.Say(Handshake() + Request(code) + Request("04 00 00 00"));
    EXPECT_TRUE(other.IsReadAheadFor(DataOf(3))) << code;
    other.Say(Times(3, kAskForRecord));
    EXPECT_EQ(other.Heard(), Directly(other.said_)) << code;
  }
}

TEST_F(ReadAheadTest, RequestLongerThanTheDaemonTakesPassesAsItIs) {
  Say(Handshake() + Frame(std::string(65537, 'x')) + DataOf(5));
  EXPECT_EQ(Heard(), Directly(said_));
  EXPECT_EQ(gates_.heard(kMaster), said_);
}

// Both gates as far as the first reply of an exchange of five records has come to the serving one.
class FirstReplyTest : public testing::Test {
 protected:
  FirstReplyTest() {
    gates_.Connect();
    gates_.Say(kMaster, Handshake() + DataOf(5));
    gates_.Say(kDaemon, DaemonModel::Greeting() + PackedText("OK|x"));
    gates_.Run();
    gates_.Say(kDaemon, Frame(Bytes("0a 00 00 00 05 00 00 00 00 00 00 00")));
    gates_.Give(kDaemon, 1000);
  }

  Gates gates_;
};

// A daemon's bytes may come before it has taken those of the master to which they belong.
TEST_F(ReadAheadTest, RequestsOfTheGateFollowTheMastersOwn) {
  Gates gates;
  gates.Connect();
  gates.Run();
  gates.Say(kMaster, Handshake() + DataOf(5));
  gates.Say(kDaemon, DaemonModel::Greeting() + PackedText("OK|x") +
                         Frame(Bytes("0a 00 00 00 05 00 00 00 00 00 00 00")));
  while (gates.Give(kMaster, 1000) || gates.Send(kMaster, 1000) || gates.Arrive(kMaster, 1000) ||
         gates.Give(kDaemon, 1000)) {
  }
  EXPECT_EQ(gates.heard(kMaster), "");
  gates.Run(10);
  EXPECT_EQ(gates.heard(kMaster), Handshake() + DataOf(5) + Times(4, kAskForRecord));
}

TEST_F(FirstReplyTest, RequestIsWholeBeforeTheMasterDeviates) {
  gates_.Hear(kMaster, 3);
  gates_.Say(kMaster, Request("04 00 00 00"));
  while (gates_.Send(kDaemon, 1000) || gates_.Arrive(kDaemon, 1000) || gates_.Give(kMaster, 1000) ||
         gates_.Send(kMaster, 1000) || gates_.Arrive(kMaster, 1000)) {
  }
  gates_.Run();
  EXPECT_EQ(gates_.heard(kMaster),
            Handshake() + DataOf(5) + kAskForRecord + Request("04 00 00 00"));
}

// A daemon that says what it was not asked for ends the reading ahead, and no request is torn.
TEST_F(FirstReplyTest, RequestIsWholeWhenTheDaemonDeviates) {
  gates_.Hear(kMaster, 3);
  gates_.Say(kDaemon, Frame(Bytes("00 10 00 00 20*('r')")));
  gates_.Say(kMaster, Request("04 00 00 00"));
  while (gates_.Give(kDaemon, 1000) || gates_.Send(kDaemon, 1000) || gates_.Arrive(kDaemon, 1000) ||
         gates_.Give(kMaster, 1000) || gates_.Send(kMaster, 1000) || gates_.Arrive(kMaster, 1000)) {
  }
  gates_.Run();
  EXPECT_EQ(gates_.heard(kMaster),
            Handshake() + DataOf(5) + Times(4, kAskForRecord) + Request("04 00 00 00"));
}

// The master asks for something else than the records that the daemon was asked for.
TEST_F(FirstReplyTest, OnlyRecordsAreKeptFromAMasterThatHasDeviated) {
  struct Row {
    const char* said;
    const char* heard;
  };
  for (const Row& row : {Row{"08 00 00 00 00 10 00 00 'data'  08 00 00 00 00 10 00 00 'data'", ""},
                         Row{"08 00 00 00 00 10 00 00 'data'  0c 00 00 00 04 00 00 00 8*(01)",
                             "0c 00 00 00 04 00 00 00 8*(01)"},
                         Row{"08 00 00 00 04 00 00 00 'time'  08 00 00 00 00 10 00 00 'data'",
                             "08 00 00 00 04 00 00 00 'time'  08 00 00 00 00 10 00 00 'data'"},
                         Row{"08 00 00 00 00 10 00 00 'data'  04 00 00", ""}}) {
    FirstReplyTest_OnlyRecordsAreKeptFromAMasterThatHasDeviated_Test other;
    Gates& gates = other.gates_;
    gates.Run();
    gates.Say(kMaster, Request("04 00 00 00"));
    gates.Run();
    const std::string before = gates.heard(kDaemon);
    gates.Say(kDaemon, Bytes(row.said));
    gates.End(kDaemon);
    gates.Run();
    EXPECT_EQ(Hex(gates.heard(kDaemon)), Hex(before + Bytes(row.heard))) << row.said;
    EXPECT_TRUE(gates.heard_end(kDaemon)) << row.said;
  }
}

// The reading ahead ends in the midst of a frame of the daemon's.
TEST_F(ReadAheadTest, FrameThatHasBegunBeforeTheEndOfReadingAheadPasses) {
  Gates gates;
  gates.Connect();
  gates.Say(kDaemon, DaemonModel::Greeting());
  gates.Say(kMaster, Handshake());
  gates.Run();
  gates.Say(kDaemon, PackedText("OK|x") + Bytes("0c 00 00 00 04 00"));
  gates.Run();
  gates.Say(kMaster, Bytes("00 00 00 00") + DataOf(5));
  gates.Run();
  gates.Say(kDaemon, Bytes("00 00 8*(01)") + Frame(Bytes("0a 00 00 00 05 00 00 00 4*(00)")));
  gates.Run();
  EXPECT_EQ(gates.heard(kDaemon), gates.said(kDaemon));
  EXPECT_EQ(gates.heard(kMaster), gates.said(kMaster));
}

// The run of a master that asks for one record after the other, with the daemon's answers played.
TEST_F(ReadAheadTest, RecordedRunIsTheSameToItsMaster) {
  const std::vector<Said> run = RecordedRun();
  std::string master;
  std::string daemon;
  for (const Said& one : run) (one.from == kMaster ? master : daemon) += one.bytes;
  Gates gates;
  gates.Connect();
  std::size_t next = 0;
  std::size_t said = 0;
  std::size_t answered = 0;
  std::size_t master_due = 0;
  bool moved = true;
  // The daemon answers by what it has got: the recording's answers in their order, one for each
  // piece of the master's that has come whole.
  std::vector<std::size_t> ends;
  std::vector<std::string> answers(1);
  for (const Said& one : run) {
    if (one.from == kMaster) {
      said += one.bytes.size();
      ends.push_back(said);
      answers.emplace_back();
    } else {
      answers.back() += one.bytes;
    }
  }
  gates.Say(kDaemon, answers[0]);
  while (moved) {
    if (next < run.size() && run[next].from == kDaemon) {
      master_due += run[next++].bytes.size();
      continue;
    }
    if (next < run.size() && gates.heard(kDaemon).size() >= master_due) {
      gates.Say(kMaster, run[next++].bytes);
    }
    moved = gates.Once(16384);
    while (answered < ends.size() && gates.heard(kMaster).size() >= ends[answered]) {
      gates.Say(kDaemon, answers[++answered]);
      moved = true;
    }
  }
  EXPECT_EQ(gates.heard(kDaemon), daemon);
  EXPECT_EQ(gates.heard(kMaster), master);
}

}  // namespace
