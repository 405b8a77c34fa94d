#include "inspect/launch_reader.h"

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

}  // namespace
}  // namespace inspect
