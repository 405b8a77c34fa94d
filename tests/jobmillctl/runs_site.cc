#include "tests/jobmillctl/runs_site.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "tests/jobmillctl/jobmillctl.h"
#include "tests/support/bytes.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kScript = R"(#!/bin/bash
cd "$2" || exit 1
delay=
case $3 in
  QUEUED*)
    mkdir "vk_$3" && cd "vk_$3" || exit 1
    echo "somescheduler: job 47${3#QUEUED} (vk_$3) is submitted"
    sleep 1000
    exit
    ;;
  ABSENT*)
    echo HOST=127.0.0.1
    exec >/dev/null 2>&1
    sleep 1000
    exit
    ;;
  HELD*)
    until [ -e "$3.go" ]; do sleep 0.1; done
    delay='--step-delay 3600000'
    ;;
  JOB*)
    mkdir "vk_$3" && cd "vk_$3" || exit 1
    echo "somescheduler: job 47${3#JOB} (vk_$3) is submitted"
    ;;
  STEP*) delay='--step-delay 3600000' ;;
  BUSY*) sed -i 's/^max_step.*/max_step = 0.0001/' "$2$3.afi" ;;
esac
read -r mark </proc/sys/kernel/random/uuid
JOBMILL_RUN=$mark "$VKSIM" "$2" "$3" --port "$4" --processes "$1" $delay >"$3.out" 2>&1 </dev/null &
until grep -qs Listening "$3.out"; do
  kill -0 $! || exit 1
  sleep 0.1
done
echo HOST=127.0.0.1
[[ $3 == GONE* ]] && exit
exec >/dev/null 2>&1 </dev/null
trap 'kill %1; exit' TERM
wait
)";

std::string Deck() {
  std::ifstream file(EXAMPLES_DIR "/TENWELLS.afi");
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

RunsSite::RunsSite(const std::function<void(RunningDaemon::Options&)>& change) {
  fs::permissions(data_.path(), fs::perms(0777));
  RunningDaemon::Options options;
  options.arguments = {"-u", "-l",
                       "-t", "600",
                       "-o", std::to_string(comms_.first()),
                       "-n", std::to_string(comms_.size())};
  options.script = kScript;
  options.variables = {"VKSIM=" + ProgramDirectory() + "/vksim"};
  if (change) change(options);
  daemon_ = std::make_unique<RunningDaemon>(options);
}

TestMaster& RunsSite::Request(const std::string& root, const std::string& user) {
  data_.Write(root + ".afi", Deck());
  const std::size_t before = daemon_->Logged().size();
  masters_.push_back(std::make_unique<TestMaster>(daemon_->port()));
  masters_.back()->RequestRun({"0", data_.path().string() + "/", root, "1", "20172", user, "0"});
  // Lines of launches at once are mixed. The others answer when their lines are through.
  if (root.starts_with("QUEUED")) {
    EXPECT_TRUE(Eventually(
        [&] { return daemon_->Logged().find(") is submitted\n", before) != std::string::npos; }));
  }
  return *masters_.back();
}

TestMaster& RunsSite::Greet() {
  masters_.push_back(std::make_unique<TestMaster>(daemon_->port()));
  masters_.back()->Receive();
  masters_.back()->Send("3");
  return *masters_.back();
}

TestMaster& RunsSite::Connect(const std::string& root) {
  TestMaster& master = Request(root);
  master.Receive();
  master.Send(Bytes("01 00 00 00"));
  if (!root.starts_with("ABSENT")) master.Receive();
  return master;
}

std::vector<nlohmann::json> RunsSite::Runs() const {
  return RunsIn(Jobmillctl({"status", "--json"}).out);
}

std::vector<nlohmann::json> RunsSite::RunsForNobody() const {
  return RunsIn(JobmillctlAsNobody({"status", "--json"}).out);
}

// Other tests may have runs on this machine.
std::vector<nlohmann::json> RunsSite::RunsIn(const std::string& document) const {
  std::vector<nlohmann::json> runs;
  const auto all = nlohmann::json::parse(document);
  for (const auto& run : all.at("runs")) {
    if (run.at("port") == daemon_->port() || run.at("path") == data_.path().string() + "/") {
      runs.push_back(run);
    }
  }
  return runs;
}

nlohmann::json RunsSite::Run(const std::string& root) const {
  for (const nlohmann::json& run : Runs()) {
    if (run.at("root") == root) return run;
  }
  return nullptr;
}

bool RunsSite::WaitForState(const std::string& root, const std::string& state) const {
  return Eventually([&] {
    const nlohmann::json run = Run(root);
    return run.is_object() && run.at("state") == state;
  });
}
