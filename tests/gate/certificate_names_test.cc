#include "gate/certificate_names.h"

#include <openssl/asn1.h>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/gate/authority.h"
#include "tests/support/temporary_directory.h"

namespace gate {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_literals;

class CertificateNamesTest : public testing::Test {
 protected:
  CertificateNames NamesOfOne(const Subject& subject, bool common_name = false) {
    return NamesOf(*authority_.Certificate(subject), common_name);
  }
  // The names' texts, then how many were left out.
  std::vector<std::string> Seen(const Subject& subject, bool common_name = false) {
    const CertificateNames found = NamesOfOne(subject, common_name);
    std::vector<std::string> texts;
    for (const CertificateName& name : found.names) texts.push_back(Text(name));
    if (found.unreadable > 0) texts.push_back(std::to_string(found.unreadable) + " unreadable");
    return texts;
  }

  TemporaryDirectory directory_;
  Authority authority_{directory_.path().string(), "root"};
};

TEST_F(CertificateNamesTest, UpnAndEmailAreFoundWithTheirKinds) {
  EXPECT_THAT(Seen({.upn = "alice@example.com", .email = "a.miller@example.com"}),
              ElementsAre("upn:alice@example.com", "email:a.miller@example.com"));
}

TEST_F(CertificateNamesTest, CommonNameCountsOnlyWhenTold) {
  EXPECT_THAT(Seen({.common_name = "alice"}), IsEmpty());
  EXPECT_THAT(Seen({.common_name = "alice"}, true), ElementsAre("cn:alice"));
  EXPECT_THAT(Seen({.common_name = "", .email = "a@b"}, true), ElementsAre("email:a@b"));
}

TEST_F(CertificateNamesTest, CommonNameThatStandsTwiceProvesNothing) {
  EXPECT_THAT(Seen({.common_name = "alice", .second_common_name = "bob"}, true),
              ElementsAre("1 unreadable"));
}

TEST_F(CertificateNamesTest, CommonNameOfTwoBytesACharacterIsRead) {
  EXPECT_THAT(Seen({.common_name = "\0a\0l"s, .common_name_type = V_ASN1_BMPSTRING}, true),
              ElementsAre("cn:al"));
}

TEST_F(CertificateNamesTest, CommonNameThatIsNoTextProvesNothing) {
  EXPECT_THAT(Seen({.common_name = "alice", .common_name_type = V_ASN1_BIT_STRING}, true),
              ElementsAre("1 unreadable"));
}

TEST_F(CertificateNamesTest, HostsAndOtherNamesOfOtherKindsAreNoNames) {
  EXPECT_THAT(Seen({.host = "alice.example.com", .other_name = "alice@example.com"}), IsEmpty());
}

TEST_F(CertificateNamesTest, UpnOfAnotherTypeThanUtf8StringIsLeftOut) {
  for (const int type : {V_ASN1_OCTET_STRING, V_ASN1_IA5STRING, V_ASN1_PRINTABLESTRING}) {
    EXPECT_THAT(Seen({.upn = "alice@example.com", .upn_type = type}), ElementsAre("1 unreadable"));
  }
}

TEST_F(CertificateNamesTest, NameWithAZeroByteProvesNothing) {
  EXPECT_THAT(Seen({.upn = "alice@example.com\0.evil.org"s}), ElementsAre("1 unreadable"));
  EXPECT_THAT(Seen({.email = "alice@example.com\0.evil.org"s}), ElementsAre("1 unreadable"));
  EXPECT_THAT(Seen({.common_name = "alice\0.evil"s}, true), ElementsAre("1 unreadable"));
}

TEST_F(CertificateNamesTest, NameWithAControlCharacterProvesNothing) {
  EXPECT_THAT(Seen({.upn = "alice\n@example.com"}), ElementsAre("1 unreadable"));
  EXPECT_THAT(Seen({.upn = "alice\x7f@example.com"}), ElementsAre("1 unreadable"));
  EXPECT_THAT(Seen({.upn = "alice\xc2\x9b@example.com"}), ElementsAre("1 unreadable"));
}

TEST_F(CertificateNamesTest, NameThatIsNoUtf8ProvesNothing) {
  EXPECT_THAT(Seen({.upn = "al\xefice@example.com"}), ElementsAre("1 unreadable"));
  EXPECT_THAT(Seen({.upn = "al\xc0\xafice@example.com"}), ElementsAre("1 unreadable"));
  EXPECT_THAT(Seen({.email = "jos\xc3\xa9@example.com"}), ElementsAre("1 unreadable"));
}

TEST_F(CertificateNamesTest, LettersOfOtherLanguagesAreKept) {
  EXPECT_THAT(Seen({.upn = "jos\xc3\xa9@example.com"}), ElementsAre("upn:jos\xc3\xa9@example.com"));
}

TEST_F(CertificateNamesTest, BadNameTakesNoOtherWithIt) {
  EXPECT_THAT(Seen({.upn = "alice\n", .email = "alice@example.com"}),
              ElementsAre("email:alice@example.com", "1 unreadable"));
}

TEST_F(CertificateNamesTest, ExtensionThatStandsTwiceGivesNoNames) {
  EXPECT_THAT(Seen({.upn = "alice@example.com", .names_twice = true}), ElementsAre("1 unreadable"));
}

TEST_F(CertificateNamesTest, LongNameIsLeftOut) {
  EXPECT_THAT(Seen({.upn = std::string(255, 'a')}), ElementsAre("upn:" + std::string(255, 'a')));
  EXPECT_THAT(Seen({.upn = std::string(256, 'a')}), ElementsAre("1 unreadable"));
}

TEST(CleanNameTest, Utf8IsJudgedToItsLastBit) {
  for (const char* clean : {"a", "\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                            "\xee\x80\x80", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(IsCleanName(clean)) << clean;
  }
  for (const char* unclean :
       {"", "\x80", "\xc1\xbf", "\xc2", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xe2\x82",
        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf1\x41\x80\x80", "\xf1\x80\x41\x80",
        "\xf1\x80\x80\x41", "\xf1\x80\x80", "\xf5\x80\x80\x80", "\xff", "a\x1f"}) {
    EXPECT_FALSE(IsCleanName(unclean)) << unclean;
  }
}

TEST(SameNameTest, CaseOfAsciiIsAllThatIsFolded) {
  EXPECT_TRUE(SameName("Alice@EXAMPLE.com", "aLICE@example.COM"));
  EXPECT_TRUE(SameName("KIRIL", "kiril"));
  EXPECT_FALSE(SameName("k\xc4\xb1ril", "kiril"));  // dotless i
  EXPECT_FALSE(SameName("k\xc4\xb0ril", "kiril"));  // I with a dot
  EXPECT_FALSE(
      SameName("\xe2\x84\xaa"
               "iril",
               "kiril"));                                // the sign of the kelvin
  EXPECT_FALSE(SameName("\xef\xbd\x81lice", "alice"));   // full-width a
  EXPECT_FALSE(SameName("JOS\xc3\x89", "jos\xc3\xa9"));  // accents
  EXPECT_FALSE(SameName("alice", "alice "));
  EXPECT_FALSE(SameName("alice", "alic"));
  EXPECT_FALSE(SameName("[", "{"));  // as far apart as A and a
}

}  // namespace
}  // namespace gate
