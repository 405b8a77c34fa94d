#include "tests/support/running_daemon.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/support/bytes.h"
#include "tests/support/ports.h"

namespace fs = std::filesystem;

std::string DaemonExecutable() {
  return ProgramDirectory() + "/vkjobmill.exe";
}

bool HasStarted(const std::string& log) {
  const std::size_t line = log.find("Executable path = ");
  return line != std::string::npos && log.find('\n', line) != std::string::npos;
}

RunningDaemon::RunningDaemon(const Options& options) {
  // Configuration is looked for beside the executable, and mapped accounts have to get at the
  // script.
  fs::permissions(directory_.path(), fs::perms(0755));
  const std::string executable = directory_.File("vkjobmill.exe");
  fs::copy_file(DaemonExecutable(), executable);
  if (options.users != "-") directory_.Write(".vk_corvane_users", options.users);
  if (options.environment != "-") directory_.Write(".vk_corvane_env", options.environment);
  ChildProcess::Options process;
  process.output_file = directory_.File("output");
  process.error_file = directory_.File("errors");
  process.directory = directory_.path().string();
  process.environment = options.variables;
  process.in_child = options.in_child;
  std::vector<std::string> script;
  if (!options.script.empty()) {
    script = {"-s", directory_.Write("script", options.script)};
    chmod(script[1].c_str(), 0755);
  }
  // Between choosing a port and listening on it somebody else may take it.
  for (int attempt = 0; attempt < 20; ++attempt) {
    port_ = FreePort();
    // One that a daemon of the same port has left would look as if this one had started.
    RemoveLogFile();
    std::vector<std::string> arguments = {executable, "-p", std::to_string(port_)};
    arguments.insert(arguments.end(), script.begin(), script.end());
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    process_ = std::make_unique<ChildProcess>(arguments, process);
    if (Eventually([&] {
          return HasStarted(options.quiet ? TextOfLogFile() : Logged()) ||
                 !IsRunning(process_->pid());
        }) &&
        IsRunning(process_->pid())) {
      return;
    }
    if (Logged().find("Error in creating socket") == std::string::npos) break;
    process_.reset();
    fs::remove(directory_.File("output"));
  }
  throw std::runtime_error("the daemon did not start: " + Logged() + Errors());
}

RunningDaemon::~RunningDaemon() {
  // As long as the port is taken: after that it may be the log of the next daemon that has it.
  RemoveLogFile();
  process_.reset();
}

bool RunningDaemon::WaitForLog(const std::string& text) const {
  return Eventually([&] { return Logged().find(text) != std::string::npos; });
}

void RunningDaemon::RemoveLogFile() const {
  for (const char* directory : {"/var/log", "/tmp"}) {
    std::error_code ignored;
    fs::remove(directory + ("/VKJobmill_" + std::to_string(port_) + ".log"), ignored);
  }
}

std::string RunningDaemon::LogFile() const {
  const std::string name = "/VKJobmill_" + std::to_string(port_) + ".log";
  return (fs::exists("/var/log" + name) ? "/var/log" : "/tmp") + name;
}

std::string RunningDaemon::Inside(const std::string& file) const {
  return "/proc/" + std::to_string(pid()) + "/root" + file;
}

std::string RunningDaemon::TextOfLogFile() const {
  const std::string name = "/VKJobmill_" + std::to_string(port_) + ".log";
  for (const char* directory : {"/var/log", "/tmp"}) {
    const std::string file = Inside(directory + name);
    std::error_code ignored;
    if (!fs::is_regular_file(fs::symlink_status(file, ignored))) continue;
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  return {};
}

TestMaster::TestMaster(int port) : link_("127.0.0.1", port) {}

void TestMaster::RequestRun(std::vector<std::string> fields) {
  const std::vector<std::string> usual = {"0", "PATH", "CASE", "1", "20172", "alice", "0"};
  for (std::size_t i = fields.size(); i < usual.size(); ++i) fields.push_back(usual[i]);
  Receive();
  Send("3");
  for (const std::string& field : fields) Send(field);
}

std::string TestMaster::Receive() {
  int length = 0;
  return link_.ReceiveLine(length);
}

bool TestMaster::SeesEndWithin(double seconds) const {
  pollfd readable{link_.handle(), POLLIN, 0};
  char byte = 0;
  return poll(&readable, 1, static_cast<int>(seconds * 1000)) == 1 &&
         recv(link_.handle(), &byte, 1, 0) <= 0;
}

std::string TestMaster::Ask(const std::string& hex) {
  Send(Bytes(hex));
  return Hex(Receive());
}
