#include "tests/system/site.h"

#include <chrono>
#include <filesystem>
#include <fstream>

#include "master/errors.h"

namespace fs = std::filesystem;

std::vector<pid_t> ProcessesWith(const std::string& text) {
  std::vector<pid_t> found;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const std::string number = entry.path().filename().string();
    if (number.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file(entry.path() / "cmdline", std::ios::binary);
    std::string line;
    std::getline(file, line, '\n');  // none when the process has just gone
    if (line.find(text) != std::string::npos) found.push_back(std::stoi(number));
  }
  return found;
}

Site::Site(std::vector<std::string> variables, std::vector<std::string> arguments) {
  fs::permissions(data_.path(), fs::perms(0777));
  RunningDaemon::Options options;
  options.arguments = {"-u", "-l",
                       "-o", std::to_string(comms_.first()),
                       "-n", std::to_string(comms_.size()),
                       "-s", ProgramDirectory() + "/vkmpi_dir.sh"};
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  options.variables = std::move(variables);
  daemon_ = std::make_unique<RunningDaemon>(options);
}

master::Launch Site::Request(const std::string& root, const std::string& version, int port) {
  if (port == 0) port = daemon_->port();
  master::Launch launch(
      master::FrameChannel::ConnectTo("127.0.0.1", port, std::chrono::seconds(5)));
  launch.ExchangeVersions();
  master::RunRequest request;
  request.path = data_.path().string() + "/";
  request.root = root;
  request.version = version;
  request.user = "alice";
  launch.Request(request);
  return launch;
}

std::unique_ptr<master::Run> Site::Start(const std::string& root, const std::string& deck,
                                         const std::string& version, int port) {
  data_.Write(root + ".afi", deck);
  master::Launch launch = Request(root, version, port);
  launch.AwaitHost();
  auto run = std::make_unique<master::Run>(launch.Release());
  run->Connect();
  return run;
}

std::string Site::RefusalOf(const std::string& root) {
  try {
    Request(root, "20172", 0).AwaitHost();
  } catch (const master::LaunchRefused& refused) {
    return refused.what();
  }
  return "launched";
}

bool Site::IsQuiet(const std::string& root) const {
  // A script gives a simulator that ignores SIGTERM five seconds of its own.
  const std::chrono::seconds limit(30);
  return Eventually(
      [&] {
        return ChildrenOf(daemon_->pid()).empty() &&
               ProcessesWith(data_.path().string() + "/" + std::string(1, '\0') + root).empty();
      },
      limit);
}
