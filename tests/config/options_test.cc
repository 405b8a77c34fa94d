#include "config/options.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

Options Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "vkjobmill.exe");
  return ParseOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(OptionsTest, DefaultsHoldWithoutOptions) {
  const Options options = Parse({});
  EXPECT_EQ(options.listen_port, 0);
  EXPECT_EQ(options.start_timeout, 60);
  EXPECT_EQ(options.comms_base_port, 9001);
  EXPECT_EQ(options.comms_ports, 100);
  EXPECT_EQ(options.script, "");
  EXPECT_TRUE(options.run_as_root);
  EXPECT_FALSE(options.comms_log);
  EXPECT_FALSE(options.version);
}

TEST(OptionsTest, LowerCaseFormsAreRead) {
  const Options options =
      Parse({"-p", "5000", "-t", "120", "-o", "20000", "-n", "7", "-s", "/opt/launch", "-u", "-l"});
  EXPECT_EQ(options.listen_port, 5000);
  EXPECT_EQ(options.start_timeout, 120);
  EXPECT_EQ(options.comms_base_port, 20000);
  EXPECT_EQ(options.comms_ports, 7);
  EXPECT_EQ(options.script, "/opt/launch");
  EXPECT_FALSE(options.run_as_root);
  EXPECT_TRUE(options.comms_log);
}

TEST(OptionsTest, UpperCaseFormsAreReadButForTheScript) {
  const Options options =
      Parse({"-P", "5000", "-T", "120", "-O", "20000", "-N", "7", "-S", "/opt/launch", "-U", "-L"});
  EXPECT_EQ(options.listen_port, 5000);
  EXPECT_EQ(options.start_timeout, 120);
  EXPECT_EQ(options.comms_base_port, 20000);
  EXPECT_EQ(options.comms_ports, 7);
  EXPECT_EQ(options.script, "");
  EXPECT_FALSE(options.run_as_root);
  EXPECT_TRUE(options.comms_log);
}

TEST(OptionsTest, SmallNumbersAreRaisedToTheirBounds) {
  EXPECT_EQ(Parse({"-t", "1"}).start_timeout, 5);
  EXPECT_EQ(Parse({"-o", "80"}).comms_base_port, 2048);
  EXPECT_EQ(Parse({"-n", "0"}).comms_ports, 2);
  EXPECT_EQ(Parse({"-n", "1"}).comms_ports, 2);
  EXPECT_EQ(Parse({"-n", "x"}).comms_ports, 2);
}

TEST(OptionsTest, TrailingOptionIsItsOwnValue) {
  EXPECT_EQ(Parse({"-p"}).listen_port, 0);
  EXPECT_EQ(Parse({"-s"}).script, "-s");
  EXPECT_EQ(Parse({"-t"}).start_timeout, 5);
}

TEST(OptionsTest, EmptyScriptIsNone) {
  EXPECT_EQ(Parse({"-s", ""}).script, "");
}

TEST(OptionsTest, TextThatIsNoNumberIsZero) {
  EXPECT_EQ(Parse({"-p", "http"}).listen_port, 0);
}

TEST(OptionsTest, ValueThatIsAnOptionIsReadAsBoth) {
  const Options options = Parse({"-s", "-u", "-p", "7000"});
  EXPECT_EQ(options.script, "-u");
  EXPECT_FALSE(options.run_as_root);
  EXPECT_EQ(options.listen_port, 7000);
}

TEST(OptionsTest, OtherArgumentsArePassedOver) {
  EXPECT_EQ(Parse({"-x", "--port", "1", "-p", "7000", "-pp", "-u "}).listen_port, 7000);
  EXPECT_TRUE(Parse({"-u "}).run_as_root);
}

TEST(OptionsTest, VersionStopsTheReadingAfterIt) {
  const Options options = Parse({"-p", "5000", "-V", "-u"});
  EXPECT_TRUE(options.version);
  EXPECT_EQ(options.listen_port, 5000);
  EXPECT_TRUE(options.run_as_root);
}

}  // namespace
