#include "inspect/launch_reader.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "inspect/machine.h"
#include "inspect/runs.h"

namespace inspect {
namespace {

TEST(LaunchReaderTest, SaysWhyThereIsNoLogToRead) {
  Jobmill jobmill;
  jobmill.options.listen_port = 5;
  using Files = std::vector<Process::OpenFile>;
  for (const auto& [files, why] :
       {std::pair(Files{}, "the daemon writes no log"),
        std::pair(Files{{3, "/var/log/VKJobmill_51.log"}}, "the daemon writes no log"),
        std::pair(Files{{3, "/var/log/VKJobmill_5.log.1"}},
                  "the log that tells it was removed or replaced"),
        std::pair(Files{{3, "/var/log/VKJobmill_5.log (deleted)"}},
                  "the log that tells it was removed or replaced")}) {
    jobmill.files = files;
    inspect::Run run;
    EXPECT_EQ(LaunchReader().LogOf(jobmill, run), "");
    EXPECT_EQ(run.unknown.at("windows_user"), why);
  }
}

// Who may not see what a daemon has open looks for its log in the usual places.
TEST(LaunchReaderTest, LogThatIsInNoneOfTheUsualPlacesMayNotBeRead) {
  Jobmill jobmill;
  jobmill.options.listen_port = 5;
  for (const std::optional<uid_t> user : {std::optional<uid_t>(), std::optional<uid_t>(1)}) {
    jobmill.user = user;
    inspect::Run run;
    EXPECT_EQ(LaunchReader().LogOf(jobmill, run), "");
    EXPECT_EQ(run.unknown.at("windows_user"), "the daemon's log may not be read");
  }
}

}  // namespace
}  // namespace inspect
