// The records of many wells, asked for ahead of their answers.

#include <sys/socket.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "master/run.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"
#include "tests/tools/fake_daemon.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

std::vector<std::string> WellNames(int count) {
  std::vector<std::string> names;
  names.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) names.push_back("WELL" + std::to_string(1000 + i));
  return names;
}

// A record whose status has `size` characters.
std::string Record(std::size_t size = 4) {
  Pack record(4096);
  record.String(std::string(size, 'S'));
  for (int i = 0; i < 8; ++i) record.Double(i);
  return record.Done();
}

class AheadTest : public testing::Test {
 protected:
  // What the daemon's end does beside the call under test. An exchange in which both wait for each
  // other ends after `kLimit`, and the test fails.
  template <typename Script, typename Call>
  void Play(const Script& script, const Call& call) {
    const timeval limit{5, 0};
    setsockopt(pair_.peer.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(pair_.peer.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    std::thread daemon([&] {
      script(end_);
      shutdown(pair_.peer.get(), SHUT_WR);
    });
    EXPECT_NO_THROW(call());
    daemon.join();
  }

  TcpPair pair_;
  DaemonEnd end_{pair_.peer.get()};
  master::Run run_{master::FrameChannel(std::move(pair_.ours))};
};

TEST_F(AheadTest, AllRecordsAreAskedForBeforeTheFirstComes) {
  Play(
      [](DaemonEnd& end) {
        end.Receive();
        end.Send(Pack(10).Int(300).Done());
        for (int i = 0; i < 300; ++i) {
          if (!end.Receive()) return;
        }
        for (int i = 0; i < 300; ++i) end.Send(Record());
      },
      [&] { EXPECT_THAT(run_.GetWellData(WellNames(300)), SizeIs(300)); });
}

TEST_F(AheadTest, AllInflowTablesAreAskedForBeforeTheFirstComes) {
  Play(
      [](DaemonEnd& end) {
        end.Receive();
        end.Send(Pack(16).Int(300).Int(10).Done());
        for (int i = 0; i < 300; ++i) {
          if (!end.Receive()) return;
        }
        Pack table(4097);
        for (int list = 0; list < 8; ++list) table.Series({1, 2});
        const std::string reply = table.Done();
        for (int i = 0; i < 300; ++i) end.Send(reply);
      },
      [&] { EXPECT_THAT(run_.GetWellIPRData({.wells = WellNames(300)}).wells, SizeIs(300)); });
}

// The daemon would end the connection with requests unread, and its end would look like a broken
// link.
TEST_F(AheadTest, NothingIsAskedForBeforeTheRequestItselfIsAnswered) {
  Play(
      [&](DaemonEnd& end) {
        end.Receive();
        shutdown(pair_.peer.get(), SHUT_WR);
      },
      [&] { EXPECT_THROW(run_.GetWellData(WellNames(3)), master::RequestFailed); });
  EXPECT_EQ(Arrived(pair_.peer.get()), "");
}

// The daemon reads the next request when its answer to the one before is out. With answers that
// fill the connection, a master that only sends waits for a daemon that waits for the master.
TEST_F(AheadTest, AnswersThatFillTheConnectionBlockNeitherEnd) {
  const int little = 4096;
  setsockopt(pair_.peer.get(), SOL_SOCKET, SO_SNDBUF, &little, sizeof(little));
  setsockopt(pair_.peer.get(), SOL_SOCKET, SO_RCVBUF, &little, sizeof(little));
  SocketPair narrow;
  for (const int end : {narrow.ours.get(), narrow.peer.get()}) {
    setsockopt(end, SOL_SOCKET, SO_SNDBUF, &little, sizeof(little));
  }
  const auto names = WellNames(5000);
  for (const bool tcp : {true, false}) {
    SCOPED_TRACE(tcp ? "TCP" : "a pair of sockets with room for 4 KiB");
    if (!tcp) {
      pair_.peer = std::move(narrow.peer);
      end_ = DaemonEnd(pair_.peer.get());
      run_ = master::Run(master::FrameChannel(std::move(narrow.ours)));
    }
    Play(
        [](DaemonEnd& end) {
          end.Receive();
          end.Send(Pack(10).Int(5000).Done());
          const std::string record = Record(2000);
          for (int i = 0; i < 5000 && end.Receive(); ++i) end.Send(record);
        },
        [&] { EXPECT_THAT(run_.GetWellData(names), SizeIs(5000)); });
  }
}

TEST_F(AheadTest, MoreWellsThanAFrameNamesAreAskedForInGroups) {
  const auto names = WellNames(9000);
  std::vector<std::string> named;
  std::vector<master::WellData> data;
  Play(
      [&](DaemonEnd& end) {
        while (named.size() < 9000) {
          const auto request = end.Receive();
          if (!request) return;
          Fields fields(request->substr(4));
          const int count = fields.Int();
          for (const std::string& name : fields.Strings(count)) named.push_back(name);
          end.Send(Pack(10).Int(count).Done());
          for (int i = 0; i < count && end.Receive(); ++i) end.Send(Record());
        }
      },
      [&] { data = run_.GetWellData(names); });
  EXPECT_EQ(named, names);
  EXPECT_THAT(data, SizeIs(9000));
  std::vector<std::size_t> groups;
  for (const std::string& frame : end_.received()) {
    if (frame[0] == 10) groups.push_back(frame.size());
  }
  EXPECT_THAT(groups, SizeIs(2));
  EXPECT_THAT(groups, Each(testing::Le(65536U)));
}

// The second group's request follows the first one's requests for records: no round trip between.
TEST_F(AheadTest, NextGroupIsAskedForBeforeTheRecordsOfTheFirstCome) {
  const std::vector<std::string> wells{std::string(40000, 'A'), std::string(40000, 'B')};
  std::vector<std::size_t> sizes;
  Play(
      [&](DaemonEnd& end) {
        end.Receive();
        end.Send(Pack(10).Int(1).Done());
        end.Receive();
        end.Receive();
        for (const std::string& frame : end.received()) sizes.push_back(frame.size());
        end.Send(Record());
        end.Send(Pack(10).Int(1).Done());
        end.Receive();
        end.Send(Record());
      },
      [&] { EXPECT_THAT(run_.GetWellData(wells), SizeIs(2)); });
  EXPECT_THAT(sizes, ElementsAre(40012, 4, 40012));
}

// The values of the first well show that the simulator knows the names: one that it does not know
// ends the run, and nothing is to be sent after that.
TEST_F(AheadTest, VariablesOfAllOtherWellsAreAskedForBeforeTheSecondOnesCome) {
  const auto names = WellNames(300);
  std::vector<std::vector<double>> values;
  std::string before_the_first;
  Play(
      [&](DaemonEnd& end) {
        end.Receive();
        before_the_first = Arrived(pair_.peer.get());
        end.Send(Pack(15).Series({0, 0.5}).Done());
        for (int i = 1; i < 300; ++i) {
          if (!end.Receive()) return;
        }
        for (int i = 1; i < 300; ++i) end.Send(Pack(15).Series({double(i), 0.5}).Done());
      },
      [&] {
        values = run_.GetVariablesOfWells(names, {"A", "BC"});
      });
  EXPECT_EQ(before_the_first, "");
  ASSERT_THAT(values, SizeIs(300));
  for (int i = 0; i < 300; ++i) {
    EXPECT_THAT(values[static_cast<std::size_t>(i)], ElementsAre(i, 0.5));
    Fields fields(end_.received()[static_cast<std::size_t>(i)].substr(4));
    EXPECT_EQ(fields.String(), names[static_cast<std::size_t>(i)]);
    EXPECT_THAT(fields.Strings(fields.Int()), ElementsAre("A", "BC"));
  }
}

TEST_F(AheadTest, LongRequestsForVariablesAreNotAllUnderWayAtOnce) {
  const std::vector<std::string> properties{std::string(60000, 'X')};
  std::size_t ahead = 0;
  Play(
      [&](DaemonEnd& end) {
        end.Receive();
        end.Send(Pack(15).Series({1}).Done());
        while (end.HasMore()) {
          if (!end.Receive()) return;
          ++ahead;
        }
        for (std::size_t i = 0; i < ahead; ++i) end.Send(Pack(15).Series({1}).Done());
        for (std::size_t i = ahead + 1; i < 50 && end.Receive(); ++i) {
          end.Send(Pack(15).Series({1}).Done());
        }
      },
      [&] { EXPECT_THAT(run_.GetVariablesOfWells(WellNames(50), properties), SizeIs(50)); });
  EXPECT_GE(ahead, 2U);
  EXPECT_LE(ahead, 6U);
}

// The daemon closes the connection on a request that fails, with those after it unread: its
// system then resets the connection, which must not pass for a broken link.
TEST_F(AheadTest, RefusedVariablesOfALaterWellAreAFailedRequest) {
  Play(
      [&](DaemonEnd& end) {
        end.Receive();
        end.Send(Pack(15).Series({1}).Done());
        end.Receive();
        end.Send(Pack(15).Series({1}).Done());
        end.HasMore();
        pair_.peer.Reset();
      },
      [&] { EXPECT_THROW(run_.GetVariablesOfWells(WellNames(9), {"A"}), master::RequestFailed); });
}

// A name that no request can hold is found before anything is sent: what was sent before it would
// be answered into the next request.
TEST_F(AheadTest, VariablesOfAWellWithoutRoomInARequestLeaveTheLinkAsItIs) {
  std::vector<std::string> wells = WellNames(3);
  wells.emplace_back(70000, 'x');
  EXPECT_THROW(run_.GetVariablesOfWells(wells, {"A"}), master::RequestTooLong);
  EXPECT_EQ(Arrived(pair_.peer.get()), "");
}

TEST_F(AheadTest, OneByOneVariablesAreAskedForWhenThoseBeforeHaveCome) {
  run_.AskOneByOne();
  std::string ahead;
  Play(
      [&](DaemonEnd& end) {
        for (int well = 0; well < 3; ++well) {
          end.Receive();
          ahead += Arrived(pair_.peer.get());
          end.Send(Pack(15).Series({1}).Done());
        }
      },
      [&] { EXPECT_THAT(run_.GetVariablesOfWells(WellNames(3), {"A"}), SizeIs(3)); });
  EXPECT_EQ(ahead, "");
}

TEST_F(AheadTest, OneByOneARecordIsAskedForWhenTheOneBeforeHasCome) {
  run_.AskOneByOne();
  std::string ahead;
  Play(
      [&](DaemonEnd& end) {
        for (int group = 0; group < 2; ++group) {
          end.Receive();
          end.Send(Pack(10).Int(1).Done());
          end.Receive();
          ahead += Arrived(pair_.peer.get());
          end.Send(Record());
        }
      },
      [&] {
        EXPECT_THAT(run_.GetWellData({std::string(40000, 'A'), std::string(40000, 'B')}),
                    SizeIs(2));
      });
  EXPECT_EQ(ahead, "");
}

}  // namespace
