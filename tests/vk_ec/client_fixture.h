#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/scripted_simulator.h"
#include "tests/support/wire_bytes.h"
#include "vk_ec/v2016_2/varnok_client.h"
#include "vk_ec/v2017_2/varnok_client.h"

/// A client of the given version that speaks over a socket pair instead of a TCP connection.
template <typename Version>
class PairedClient : public Version {
 public:
  explicit PairedClient(int connected_descriptor) : Version(connected_descriptor) {}
  using Version::set_up;
};

/// A client and the simulator at the other end. Nothing has been exchanged yet.
template <typename Version>
class ClientTest : public ::testing::Test {
 protected:
  // The requests of one operation that got its answers, as the simulator has read them.
  std::vector<std::string> Requests() const { return simulator_.Requests(); }

  // A query or setter can be sent and answered: the one way to see that the last one has left
  // neither bytes on the connection nor a message in progress, and has sent nothing but this.
  void ExpectUsable() {
    const auto sent = Requests().size();
    simulator_.AnswerNext({wire::Mess("FINISHED") + wire::Mess("END")});
    EXPECT_NO_THROW(client_.do_continue());
    ASSERT_EQ(Requests().size(), sent + 1);
    EXPECT_EQ(Requests().back(), wire::Mess("CONTINUE") + wire::Mess("END"));
  }

  // Neither way: a message that was left half read stands in the way of all later ones.
  void ExpectUnusable() {
    EXPECT_THAT([this] { client_.do_continue(); },
                testing::ThrowsMessage<std::logic_error>(
                    "Cannot create a new out-going message as the previous message is still on "
                    "going."));
    EXPECT_THAT([this] { client_.read_READY_answer(); },
                testing::ThrowsMessage<std::logic_error>(
                    "Cannot receive a message as the previous message is still on going."));
  }

  ScriptedSimulator simulator_{ScriptedSimulator::Link::kSocketPair};
  PairedClient<Version> client_{simulator_.TakeClientDescriptor()};
};

using BothVersions = ::testing::Types<v2016_2::vk_ec::VarnokClient, v2017_2::vk_ec::VarnokClient>;

/// Names the instances of a typed suite after the versions.
struct VersionNames {
  template <typename Version>
  static std::string GetName(int /*index*/) {
    return std::is_same_v<Version, v2016_2::vk_ec::VarnokClient> ? "v2016_2" : "v2017_2";
  }
};
