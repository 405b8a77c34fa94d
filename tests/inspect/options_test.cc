#include "inspect/options.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/findings.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;

TEST(OptionsTest, MissingConfigurationFileIsFound) {
  const TemporaryDirectory directory;
  const Site site = SiteOf(directory.path(), "jobmill", "/x/vkjobmill.exe");
  EXPECT_THAT(Ids(CheckOptions(site)), ElementsAre("error options.unreadable"));
}

}  // namespace
}  // namespace inspect
