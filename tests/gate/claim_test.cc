#include "gate/claim.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace gate {
namespace {

using State = Claim::State;
using namespace std::string_literals;

constexpr std::size_t kLimit = 65536;

std::string Lines(const std::vector<std::string>& lines) {
  std::string bytes;
  for (const std::string& line : lines) bytes += Frame(line);
  return bytes;
}

std::string RequestOf(const std::string& user) {
  return Lines({"3", "0", "/data/", "CASE", "1", "20172", user});
}

TEST(ClaimTest, UserIsTheSeventhLine) {
  Claim claim(kLimit);
  EXPECT_EQ(claim.Read(RequestOf("alice")), State::kClaimed);
  EXPECT_EQ(claim.user(), "alice");
  EXPECT_EQ(claim.seen(), RequestOf("alice").size());
}

TEST(ClaimTest, AnyPiecesGiveTheSame) {
  const std::string request = RequestOf("alice") + Lines({"0"}) + "more";
  const std::size_t end = RequestOf("alice").size();
  for (std::size_t piece = 1; piece < request.size(); ++piece) {
    Claim claim(kLimit);
    for (std::size_t at = 0; at < request.size(); at += piece) {
      const State state = claim.Read(std::string_view(request).substr(at, piece));
      EXPECT_EQ(state, at + piece < end ? State::kOpen : State::kClaimed) << piece << " " << at;
    }
    EXPECT_EQ(claim.user(), "alice") << piece;
    EXPECT_EQ(claim.seen(), end);
  }
}

TEST(ClaimTest, NothingAfterTheClaimIsLookedAt) {
  Claim claim(kLimit);
  claim.Read(RequestOf("alice") + RequestOf("bob"));
  claim.Read(Lines({"bob", "bob", "bob"}));
  EXPECT_EQ(claim.user(), "alice");
  EXPECT_EQ(claim.state(), State::kClaimed);
}

TEST(ClaimTest, EmptyAndNegativeLengthsAreEmptyLinesAsForTheDaemon) {
  Claim claim(kLimit);
  EXPECT_EQ(claim.Read(Lines({"3"}) + Bytes("00 00 00 00  ff ff ff ff  00 00 00 80") +
                       Lines({"", "", "bob", "alice"})),
            State::kClaimed);
  EXPECT_EQ(claim.user(), "bob");
}

TEST(ClaimTest, EmptyUserIsAClaim) {
  Claim claim(kLimit);
  EXPECT_EQ(claim.Read(RequestOf("")), State::kClaimed);
  EXPECT_EQ(claim.user(), "");
}

TEST(ClaimTest, UserIsTakenWithItsZeroBytes) {
  Claim claim(kLimit);
  claim.Read(RequestOf("alice\0bob"s));
  EXPECT_EQ(claim.user(), "alice\0bob"s);
}

TEST(ClaimTest, LongUserIsCutAfterWhatANameMayHave) {
  Claim claim(kLimit);
  EXPECT_EQ(claim.Read(RequestOf(std::string(30000, 'a'))), State::kClaimed);
  EXPECT_EQ(claim.user(), std::string(256, 'a'));
}

TEST(ClaimTest, LineThatTheDaemonNeverTakesEndsTheReading) {
  Claim claim(kLimit);
  EXPECT_EQ(claim.Read(Lines({"3"}) + Bytes("ff 7f 00 00") + std::string(32767, 'x')),
            State::kOpen);
  Claim longer(kLimit);
  EXPECT_EQ(longer.Read(Lines({"3"}) + Bytes("00 80 00 00")), State::kTooLong);
}

TEST(ClaimTest, MoreThanMayWaitEndsTheReading) {
  const std::string request = RequestOf("alice");
  Claim enough(request.size());
  EXPECT_EQ(enough.Read(request), State::kClaimed);
  Claim less(request.size() - 1);
  EXPECT_EQ(less.Read(request), State::kTooLong);
  Claim trickled(100);
  for (int i = 0; i < 100; ++i) trickled.Read("\0"s);
  EXPECT_EQ(trickled.state(), State::kNotAMaster);
}

TEST(ClaimTest, VersionThatIsNoNumberIsNoMasters) {
  for (const std::string& version : {"0"s, ""s, "x"s, "GET / HTTP/1.1"s, "\0003"s, "-0"s}) {
    Claim claim(kLimit);
    EXPECT_EQ(claim.Read(Lines({version}) + "anything"), State::kNotAMaster);
    EXPECT_EQ(claim.version_bytes(), 4 + version.size());
  }
  for (const std::string& version : {"3"s, " 3"s, "3x"s, "-1"s, "+7"s, "99999999999999999999"s}) {
    Claim claim(kLimit);
    EXPECT_EQ(claim.Read(Lines({version})), State::kOpen) << version;
  }
}

TEST(LineFrameTest, TextFollowsItsLength) {
  EXPECT_EQ(Hex(LineFrame("no")), "02 00 00 00 6e 6f");
}

TEST(NotProvenTextTest, ClaimAndNamesAreTold) {
  EXPECT_EQ(NotProvenText("bob", {{{NameKind::kUpn, "alice@example.com"}}, 0}),
            "Windows user 'bob' is not proven by the certificate, which is that of "
            "upn:alice@example.com");
  EXPECT_EQ(NotProvenText("bob", {}),
            "Windows user 'bob' is not proven by the certificate, which has no name that could "
            "prove one");
}

TEST(NotProvenTextTest, FourNamesAreToldAndThatThereAreOthers) {
  std::vector<CertificateName> names;
  for (const char* name : {"a@x", "b@x", "c@x", "d@x"}) names.push_back({NameKind::kEmail, name});
  const std::string four =
      "Windows user 'bob' is not proven by the certificate, which is that of email:a@x, "
      "email:b@x, email:c@x, email:d@x";
  EXPECT_EQ(NotProvenText("bob", {names, 0}), four);
  names.push_back({NameKind::kEmail, "e@x"});
  EXPECT_EQ(NotProvenText("bob", {names, 0}), four + " and others");
}

TEST(NotProvenTextTest, HostileClaimIsShownAsText) {
  EXPECT_EQ(
      NotProvenText("OK|\n\x1b[2J\x7f\xff"s, {}),
      "Windows user 'OK|\\x0a\\x1b[2J\\x7f\\xff' is not proven by the certificate, which has no "
      "name that could prove one");
}

}  // namespace
}  // namespace gate
