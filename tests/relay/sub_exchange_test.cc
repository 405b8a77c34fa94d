// What the gates (gate/read_ahead.h) rely on when they ask for records before the master does:
// asking has no effect but the record, and something else ends the run in the same way at every
// record.

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/relay/controller_fixture.h"

namespace {

constexpr int kWells = 4;

struct Exchange {
  const char* name;
  const char* request;
  const char* ask;
  const char* routine;
  std::size_t first_reply;
  std::size_t record;
};

const Exchange kData = {"Data",
                        "0a 00 00 00 04 00 00 00 01 00 00 00 41 01 00 00 00 42 01 00 00 00 43 "
                        "01 00 00 00 44",
                        "00 10 00 00",
                        "VK_GETWELLDATA_SUB",
                        16,
                        84};
const Exchange kTables = {"Tables",
                          "10 00 00 00 00 00 00 00 04 00 00 00 01 00 00 00 41 01 00 00 00 42 "
                          "01 00 00 00 43 01 00 00 00 44 01 00 00 00 00 00 00 f0 3f",
                          "01 10 00 00",
                          "VK_GETWELLIPRDATA_SUB",
                          20,
                          124};

class SubExchangeTest : public ControllerTest, public testing::WithParamInterface<Exchange> {
 protected:
  SubExchangeTest() {
    for (int i = 0; i < kWells; ++i) {
      stub_->operating_points.emplace_back();
      stub_->operating_points.back().status = "OPEN";
      stub_->tables.emplace_back();
      stub_->tables.back().pressure.assign(10, i);
    }
  }

  void AskFor(int records) {
    MasterSends(GetParam().request);
    for (int i = 0; i < records; ++i) MasterSends(GetParam().ask);
  }
  std::size_t BytesReplied() const { return Bytes(replies_).size(); }
};

TEST_P(SubExchangeTest, RecordsAreAllFetchedBeforeTheFirstReply) {
  AskFor(kWells);
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(BytesReplied(), GetParam().first_reply + kWells * GetParam().record);
  EXPECT_EQ(stub_->calls.size(), 1U);
}

class ForeignFrameTest : public SubExchangeTest {
 protected:
  // The run ends after the records that were asked for before, with nothing but them.
  void ExpectEnd(int asked) {
    EXPECT_EQ(Serve(), 2);
    EXPECT_EQ(BytesReplied(),
              GetParam().first_reply + static_cast<std::size_t>(asked) * GetParam().record);
    EXPECT_EQ(error_,
              "Failed to handle data packet received from master: Exception returned from Corvane "
              "comms: Unexpected data received from Corvane, routine " +
                  std::string(GetParam().routine));
    EXPECT_EQ(stub_->calls.size(), 1U);
  }
};

#define AT_EVERY_RECORD(name, frame)                  \
  TEST_P(ForeignFrameTest, name##AtTheFirstRecord) {  \
    AskFor(0), frame, ExpectEnd(0);                   \
  }                                                   \
  TEST_P(ForeignFrameTest, name##AtTheSecondRecord) { \
    AskFor(1), frame, ExpectEnd(1);                   \
  }                                                   \
  TEST_P(ForeignFrameTest, name##AtTheThirdRecord) {  \
    AskFor(2), frame, ExpectEnd(2);                   \
  }                                                   \
  TEST_P(ForeignFrameTest, name##AtTheLastRecord) {   \
    AskFor(3), frame, ExpectEnd(3);                   \
  }

AT_EVERY_RECORD(AnotherRequest, MasterSends("04 00 00 00"))
AT_EVERY_RECORD(AnotherRecord, MasterSends("02 10 00 00"))
AT_EVERY_RECORD(TheSameRequest, MasterSends(GetParam().request))
AT_EVERY_RECORD(Shutdown, MasterSends("f0 ff 00 00"))
AT_EVERY_RECORD(EmptyFrame, MasterSends(""))
AT_EVERY_RECORD(End, (void)0)

// The length of a request for a record does not matter: the gates have to take such a one for it,
// too.
TEST_P(SubExchangeTest, RequestForARecordMayHaveAnyLength) {
  AskFor(2);
  MasterSends(std::string(GetParam().ask) + " 00 01 02");
  MasterSends(std::string(GetParam().ask).substr(0, 5));
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(BytesReplied(), GetParam().first_reply + kWells * GetParam().record);
}

const auto kBoth = testing::Values(kData, kTables);
std::string NameOf(const testing::TestParamInfo<Exchange>& exchange) {
  return exchange.param.name;
}
INSTANTIATE_TEST_SUITE_P(, SubExchangeTest, kBoth, NameOf);
INSTANTIATE_TEST_SUITE_P(, ForeignFrameTest, kBoth, NameOf);

}  // namespace
