// The bytes of docs/gate-protocol.md are those that the gates send.

#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "tests/gate/gates.h"
#include "tests/support/bytes.h"

namespace {

struct Shown {
  std::string title;
  std::string bytes;
};

// The listings of the page: what is said in each, in its order.
std::vector<std::vector<Shown>> Listings() {
  std::ifstream page(GATE_PROTOCOL);
  std::vector<std::vector<Shown>> listings;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.substr(0, 3) == "```") {
      inside = !inside;
      if (inside) listings.emplace_back();
    } else if (inside && line[0] != ' ') {
      listings.back().push_back({line, ""});
    } else if (inside && !listings.back().empty()) {
      listings.back().back().bytes += Bytes(line);
    }
  }
  return listings;
}

class GatePageTest : public testing::Test {
 protected:
  GatePageTest()
      : gates_({}, [] {
          gate::LinkId id;
          const std::string bytes = Bytes("4*(b1 5e c0 de)");
          std::copy(bytes.begin(), bytes.end(), id.bytes.begin());
          return id;
        }) {}

  // What this side's gate sends now is the next thing that the listing shows.
  void Sends(From side) {
    ASSERT_LT(next_, shown_.size());
    const Shown& shown = shown_[next_++];
    const std::string_view way = side == kMaster ? "connecting → serving" : "serving → connecting";
    EXPECT_EQ(shown.title.substr(0, way.size()), way);
    while (gates_.Send(side, 1000)) {
    }
    EXPECT_EQ(Hex(gates_.under_way(side)), Hex(shown.bytes)) << shown.title;
  }
  void Arrives(From side) {
    gates_.Arrive(side, 1000);
    gates_.Hear(side, 1000);
  }
  void Says(From side, const std::string& frame) {
    gates_.Say(side, frame);
    gates_.Give(side, 100);
  }
  void Ends(From side) {
    gates_.End(side);
    gates_.Give(side, 0);
  }

  Gates gates_;
  std::vector<Shown> shown_;
  std::size_t next_ = 0;
};

TEST_F(GatePageTest, LinkAsBytes) {
  const auto listings = Listings();
  ASSERT_EQ(listings.size(), 2U);
  shown_ = listings[0];
  gates_.Connect();
  Sends(kMaster);
  Arrives(kMaster);
  Sends(kDaemon);
  Arrives(kDaemon);
  Says(kDaemon, PackedText("3"));
  Sends(kDaemon);
  Arrives(kDaemon);
  Says(kMaster, PackedText("3"));
  Sends(kMaster);
  Arrives(kMaster);
  gates_.now += std::chrono::seconds(1);
  gates_.serving().OnTime(gates_.now);
  Sends(kDaemon);
  Arrives(kDaemon);
  Says(kDaemon, PackedText("OK|x"));
  Sends(kDaemon);
  gates_.Connect();
  Sends(kMaster);
  Arrives(kMaster);
  Sends(kDaemon);
  Arrives(kDaemon);
  gates_.now += std::chrono::seconds(20);
  gates_.connecting().OnTime(gates_.now);
  Sends(kMaster);
  Arrives(kMaster);
  Sends(kDaemon);
  Arrives(kDaemon);
  Ends(kMaster);
  Sends(kMaster);
  Arrives(kMaster);
  Ends(kDaemon);
  Sends(kDaemon);
  Arrives(kDaemon);
  Sends(kMaster);
  Arrives(kMaster);
  Sends(kDaemon);
  EXPECT_EQ(next_, shown_.size());
}

TEST_F(GatePageTest, OldEpochIsRefusedInTheseBytes) {
  shown_ = Listings().at(1);
  gates_.Connect();
  gates_.Run();
  gates_.Connect();
  gates_.Run();
  const auto opening = std::get<gate::Opening>(gate::ReadOpening(shown_.at(0).bytes));
  const auto refusal = gates_.table().Refuses(opening.id, gates_.who, opening.epoch);
  ASSERT_EQ(refusal, gate::Reason::kOldEpoch);
  EXPECT_EQ(Hex(gate::Refusal(*refusal)), Hex(shown_.at(1).bytes));
}

}  // namespace
