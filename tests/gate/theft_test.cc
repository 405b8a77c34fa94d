// Who may go on with a link: connections of the test's own to the serving gate, below the stream.

#include <fcntl.h>
#include <poll.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <variant>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gate/opening.h"
#include "gate/tls_context.h"
#include "gate/tls_socket.h"
#include "tests/gate/door.h"
#include "tests/gate/echo_daemon.h"

namespace {

using gate::Answer;
using gate::Opening;
using gate::Reason;
using Result = gate::TlsSocket::Result;

// A connection to the serving gate that says what a test wants.
class Link {
 public:
  Link(const Identity& who, int port, const std::string& authority)
      : socket_(ConnectToLoopback(port)) {
    fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
    const auto context = gate::TlsContext::Load({who.certificate, who.key, {authority}, {}},
                                                gate::TlsContext::Role::kConnect);
    tls_ = std::make_unique<gate::TlsSocket>(static_cast<std::uintptr_t>(socket_.get()), context,
                                             "127.0.0.1");
    Until([this] { return tls_->Handshake(); });
  }

  // The answer, or the text of why there is none.
  std::variant<Answer, Reason> Open(const Opening& opening) {
    Say(gate::BytesOf(opening));
    return gate::ReadAnswer(Hear(Answer::kSize));
  }

  Reason RefusalOf(const Opening& opening) {
    const auto answer = Open(opening);
    const auto* read = std::get_if<Answer>(&answer);
    if (read == nullptr) return std::get<Reason>(answer);
    return read->accepted ? Reason::kFinished : read->refusal;
  }

  void Say(const std::string& bytes) {
    std::size_t put = 0;
    Until([&] { return tls_->Write(bytes, put); });
  }

  // So many bytes; fewer when the connection ends before.
  std::string Hear(std::size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
      std::array<char, 4096> part{};
      std::size_t got = 0;
      if (!Until([&] {
            return tls_->Read(std::span(part).first(std::min(part.size(), size - bytes.size())),
                              got);
          })) {
        break;
      }
      bytes.append(part.data(), got);
    }
    return bytes;
  }

  bool HasEnded() { return Hear(1 << 20).size() < (1 << 20); }

 private:
  template <typename Step>
  bool Until(const Step& step) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < limit) {
      const Result result = step();
      if (result == Result::kDone) return true;
      if (result == Result::kBroken) return false;
      pollfd wait{socket_.get(),
                  static_cast<short>(result == Result::kWantWrite ? POLLOUT : POLLIN), 0};
      poll(&wait, 1, 1000);
    }
    return false;
  }

  Descriptor socket_;
  std::unique_ptr<gate::TlsSocket> tls_;
};

class TheftTest : public testing::Test {
 protected:
  Link Connect(const Identity& who) {
    return {who, door_.serving().port(), door_.authority().file()};
  }

  EchoDaemon daemon_;
  Door door_{daemon_.port()};
  Identity bob_ = door_.authority().Issue("bob", {.upn = "bob@example.com"});
};

TEST_F(TheftTest, LinkOfAnotherIsUnknownAndGoesOn) {
  Link alice = Connect(door_.alice());
  const auto answer = std::get<Answer>(alice.Open({}));
  ASSERT_TRUE(answer.accepted);
  Link bob = Connect(bob_);
  EXPECT_EQ(bob.RefusalOf({.id = answer.id, .epoch = 1}), Reason::kUnknown);
  EXPECT_TRUE(bob.HasEnded());
  // Alice's connection is the same as before: what the daemon has said comes, behind a frame's
  // head.
  EXPECT_EQ(alice.Hear(13 + 5).substr(13), Frame("3"));
  EXPECT_TRUE(door_.serving().Lines("broken").empty());
}

TEST_F(TheftTest, LinkThatNobodyHasIsUnknown) {
  gate::LinkId id;
  id.bytes[3] = 7;
  EXPECT_EQ(Connect(door_.alice()).RefusalOf({.id = id, .epoch = 1}), Reason::kUnknown);
}

TEST_F(TheftTest, SecondConnectionReplacesTheFirstAndAReplayIsRefused) {
  Link first = Connect(door_.alice());
  const auto answer = std::get<Answer>(first.Open({}));
  Link second = Connect(door_.alice());
  EXPECT_TRUE(std::get<Answer>(second.Open({.id = answer.id, .epoch = 1})).accepted);
  EXPECT_TRUE(first.HasEnded());
  EXPECT_EQ(Connect(door_.alice()).RefusalOf({.id = answer.id, .epoch = 1}), Reason::kOldEpoch);
  Link third = Connect(door_.alice());
  EXPECT_TRUE(std::get<Answer>(third.Open({.id = answer.id, .epoch = 7})).accepted);
  EXPECT_EQ(Connect(door_.alice()).RefusalOf({.id = answer.id, .epoch = 3}), Reason::kOldEpoch);
  EXPECT_EQ(door_.serving().Lines("resumed").size(), 2U);
}

TEST_F(TheftTest, OpeningThatSpeaksOfBytesThatNeverWereIsRefusedAndTheLinkGoesOn) {
  Link first = Connect(door_.alice());
  const auto answer = std::get<Answer>(first.Open({}));
  ASSERT_EQ(first.Hear(13 + 5).size(), 18U);
  EXPECT_EQ(Connect(door_.alice()).RefusalOf({.id = answer.id, .epoch = 1, .received = 1000}),
            Reason::kBrokenRules);
  Link second = Connect(door_.alice());
  EXPECT_TRUE(std::get<Answer>(second.Open({.id = answer.id, .epoch = 1, .received = 5})).accepted);
}

TEST_F(TheftTest, PeerThatIsNoGateIsLeftWithoutAnAnswer) {
  Link link = Connect(door_.alice());
  link.Say(std::string(Opening::kSize, 'x'));
  EXPECT_EQ(link.Hear(1), "");
  EXPECT_EQ(door_.serving().Await("refused")["why"], "The peer is no gate");
}

TEST_F(TheftTest, FramesThatBreakTheRulesEndTheLink) {
  Link link = Connect(door_.alice());
  ASSERT_TRUE(std::get<Answer>(link.Open({})).accepted);
  link.Say(std::string(100, '\x63'));
  EXPECT_TRUE(link.HasEnded());
  EXPECT_EQ(door_.serving().Await("ended")["how"], "the other gate broke the rules of the stream");
  EXPECT_TRUE(Eventually([&] { return daemon_.connections() == 0; }));
}

}  // namespace
