#include "gate/user_map.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"

namespace gate {
namespace {

using testing::StartsWith;
using namespace std::string_literals;

UserMap MapOf(const std::string& text) {
  return UserMap::Parse(text, "users");
}

std::string WhyBad(const std::string& text) {
  try {
    MapOf(text);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "taken";
}

CertificateName Upn(const std::string& text) {
  return {NameKind::kUpn, text};
}
CertificateName Email(const std::string& text) {
  return {NameKind::kEmail, text};
}

TEST(UserMapTest, LineLetsANameClaimAUser) {
  const UserMap map = MapOf("# comment\n\n  upn:alice@example.com \t alice \r\n");
  EXPECT_TRUE(map.Allows(Upn("alice@example.com"), "alice"));
  EXPECT_TRUE(map.Allows(Upn("ALICE@example.com"), "Alice"));
  EXPECT_FALSE(map.Allows(Upn("alice@example.com"), "bob"));
  EXPECT_FALSE(map.Allows(Upn("alice@example.org"), "alice"));
}

TEST(UserMapTest, KindsAreNotMixed) {
  const UserMap map = MapOf("upn:alice@example.com alice\n");
  EXPECT_FALSE(map.Allows(Email("alice@example.com"), "alice"));
  EXPECT_FALSE(map.Allows({NameKind::kCommonName, "alice@example.com"}, "alice"));
}

TEST(UserMapTest, NameMayHaveSeveralUsers) {
  const UserMap map = MapOf("upn:a@b alice\nupn:a@b EXAMPLE\\alice\n");
  EXPECT_TRUE(map.Allows(Upn("a@b"), "alice"));
  EXPECT_TRUE(map.Allows(Upn("a@b"), "example\\ALICE"));
  EXPECT_FALSE(map.Allows(Upn("a@b"), "OTHER\\alice"));
}

TEST(UserMapTest, BlanksStandInQuotes) {
  const UserMap map = MapOf("cn:\"Carol Jones\" carol\n\"cn:Dan Smith\" \"d smith\"\n");
  EXPECT_TRUE(map.Allows({NameKind::kCommonName, "Carol Jones"}, "carol"));
  EXPECT_TRUE(map.Allows({NameKind::kCommonName, "Dan Smith"}, "d smith"));
}

TEST(UserMapTest, StarStandsForThePersonOfADomain) {
  const UserMap map = MapOf("upn:*@example.com *\nupn:*@example.com EXAMPLE\\*\n");
  EXPECT_TRUE(map.Allows(Upn("alice@example.com"), "alice"));
  EXPECT_TRUE(map.Allows(Upn("alice@Example.com"), "example\\alice"));
  EXPECT_FALSE(map.Allows(Upn("alice@example.com"), "bob"));
  EXPECT_FALSE(map.Allows(Upn("alice@evil.org"), "alice"));
  EXPECT_FALSE(map.Allows(Upn("alice@evil.example.com"), "alice"));
  EXPECT_FALSE(map.Allows(Upn("alice@notexample.com"), "alice"));
  EXPECT_FALSE(map.Allows(Upn("@example.com"), ""));
  EXPECT_FALSE(map.Allows(Upn("alice"), "alice"));
  EXPECT_FALSE(map.Allows(Email("alice@example.com"), "alice"));
  // Only the last @ divides, so the person is all before it.
  EXPECT_FALSE(map.Allows(Upn("alice@evil.org@example.com"), "alice"));
  EXPECT_TRUE(map.Allows(Upn("alice@evil.org@example.com"), "alice@evil.org"));
}

TEST(UserMapTest, StarWithAFixedUserLetsAWholeDomainClaimIt) {
  const UserMap map = MapOf("email:*@partner.example guest\n");
  EXPECT_TRUE(map.Allows(Email("x@partner.example"), "guest"));
  EXPECT_FALSE(map.Allows(Email("x@partner.example"), "x"));
}

TEST(UserMapTest, PersonIsNoPattern) {
  const UserMap map = MapOf("upn:*@example.com *\n");
  EXPECT_FALSE(map.Allows(Upn("*@example.com"), "alice"));
}

TEST(UserMapTest, LineWithoutMeaningRefusesTheWholeFile) {
  EXPECT_THAT(WhyBad("upn:a@b alice\nalice alice\n"), StartsWith("users:2: a name begins with"));
  EXPECT_THAT(WhyBad("dns:a alice\n"), StartsWith("users:1: a name begins with"));
  EXPECT_THAT(WhyBad("upn:a@b\n"), StartsWith("users:1: the Windows user is missing"));
  EXPECT_THAT(WhyBad("upn: alice\n"), StartsWith("users:1: that cannot be a name"));
  EXPECT_THAT(WhyBad("upn:a@b alice 1\n"), StartsWith("users:1: a line has a name and a user"));
  EXPECT_THAT(WhyBad("cn:\"Carol carol\n"), StartsWith("users:1: a quote is not closed"));
  EXPECT_THAT(WhyBad("upn:a@b a\0b\n"s), StartsWith("users:1: the Windows user is missing"));
  EXPECT_THAT(WhyBad("upn:a\xff@b a\n"), StartsWith("users:1: that cannot be a name"));
}

TEST(UserMapTest, StarElsewhereRefusesTheWholeFile) {
  for (const char* text : {"upn:* alice\n", "upn:*@ alice\n", "upn:a*@b alice\n", "cn:*@b alice\n",
                           "upn:*@*.b alice\n", "upn:a@b *\n", "upn:*@b *\\*\n"}) {
    EXPECT_THAT(WhyBad(text), StartsWith("users:1: '*'")) << text;
  }
}

TEST(UserMapTest, FileThatCannotBeReadIsAnError) {
  const TemporaryDirectory directory;
  for (const std::string& file : {directory.File("none"), directory.path().string()}) {
    try {
      UserMap::Load(file);
      ADD_FAILURE() << file;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), file + ": cannot be read");
    }
  }
  EXPECT_TRUE(UserMap::Load(directory.Write("users", "upn:a@b c")).Allows(Upn("a@b"), "c"));
  EXPECT_FALSE(UserMap::Load(directory.Write("users", "")).Allows(Upn("a@b"), "c"));
}

TEST(UserMapTest, LongFileIsReadToItsEnd) {
  const TemporaryDirectory directory;
  std::string text;
  for (int i = 0; i < 1000; ++i)
    text += "upn:" + std::to_string(i) + "@b user" + std::to_string(i) + "\n";
  const UserMap map = UserMap::Load(directory.Write("users", text));
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(map.Allows(Upn(std::to_string(i) + "@b"), "user" + std::to_string(i))) << i;
  }
}

TEST(ProofTest, NameItselfProvesItsClaim) {
  const auto proof = ProofOf("Alice@example.COM", {Email("x@y"), Upn("alice@example.com")}, {});
  ASSERT_TRUE(proof);
  EXPECT_EQ(Text(*proof), "upn:alice@example.com");
}

TEST(ProofTest, NoDomainIsLeftOutToMakeAClaimFit) {
  const std::vector<CertificateName> names = {Upn("alice@example.com"), Email("alice@example.com")};
  for (const char* claim :
       {"alice", "EXAMPLE\\alice", "example.com\\alice", "alice@example", "alice@example.com.",
        " alice@example.com", "alice@example.com\\alice"}) {
    EXPECT_FALSE(ProofOf(claim, names, {})) << claim;
  }
}

TEST(ProofTest, ClaimThatCannotBeANameIsNeverProven) {
  const UserMap map = MapOf("upn:*@example.com *\n");
  EXPECT_FALSE(ProofOf("", {Upn("alice@example.com")}, map));
  EXPECT_FALSE(ProofOf("alice\0"s, {Upn("alice@example.com")}, map));
  EXPECT_FALSE(ProofOf("alice\n", {Upn("alice@example.com")}, map));
  // The daemon's own file takes this for everybody.
  EXPECT_FALSE(ProofOf("*", {Upn("*@example.com"), {NameKind::kCommonName, "*"}}, map));
}

TEST(ProofTest, WithoutNamesNothingIsProven) {
  EXPECT_FALSE(ProofOf("alice", {}, MapOf("upn:*@example.com *\n")));
}

}  // namespace
}  // namespace gate
