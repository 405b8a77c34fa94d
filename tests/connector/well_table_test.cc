#include "connector/well_table.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/wire_bytes.h"
#include "tests/vk_ec/client_fixture.h"

namespace {

using ::testing::ElementsAre;
using wire::Cstr;
using wire::Mess;

using WellTableTest = ClientTest<v2017_2::vk_ec::VarnokClient>;

TEST_F(WellTableTest, HasTheRowsBackToBack) {
  simulator_.AnswerNext({Mess("REPLY") + Cstr("QITEMS", {"TYPE", "STATUS"}) +
                             Cstr("WELLNAME", {"P1"}) + Cstr("VALUES", {"PRODUCER", "OPEN"}) +
                             Cstr("WELLNAME", {"P2"}) + Cstr("VALUES", {"", "SHUT"}) + Mess("END"),
                         Mess("READY") + Mess("END")});
  const auto table =
      connector::TakeTable(client_.query_wells<std::string>({"*"}, {"TYPE", "STATUS"}));
  EXPECT_THAT(table.items, ElementsAre("TYPE", "STATUS"));
  EXPECT_THAT(table.wells, ElementsAre("P1", "P2"));
  EXPECT_THAT(table.values, ElementsAre("PRODUCER", "OPEN", "", "SHUT"));
  EXPECT_THAT(table.row(1), ElementsAre("", "SHUT"));
  ExpectUsable();
}

}  // namespace
