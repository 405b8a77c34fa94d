#include "gate/journal.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/temporary_directory.h"

namespace gate {
namespace {

TEST(JournalTest, CertificateOfManyNamesMakesNoLineThatAPipeTakesInParts) {
  const TemporaryDirectory directory;
  Json names = Json::array();
  for (int i = 0; i < 1000; ++i) names.push_back("upn:" + std::string(250, '\xe4'));
  Journal((directory.path() / "log").string()).Write("begun", {{"names", names}});
  const std::string line = directory.Read("log");
  EXPECT_LE(line.size(), 4096U);
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_EQ(nlohmann::json::parse(line)["names"].back(), "...");
}

TEST(StatusFileTest, PlantedLinkIsNotFollowed) {
  const TemporaryDirectory directory;
  const std::string file = (directory.path() / "status").string();
  directory.Write("victim", "precious");
  std::filesystem::create_symlink(directory.path() / "victim", file + ".new");
  EXPECT_TRUE(ReplaceWhole(file, "status\n"));
  EXPECT_EQ(directory.Read("victim"), "precious");
  EXPECT_EQ(directory.Read("status"), "status\n");
  EXPECT_FALSE(std::filesystem::is_symlink(file));
}

}  // namespace
}  // namespace gate
