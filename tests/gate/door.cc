#include "tests/gate/door.h"

#include <signal.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

namespace {

std::string TextOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

RunningGate::RunningGate(std::vector<std::string> arguments, std::string log,
                         std::function<int()> in_child)
    : log_(std::move(log)) {
  arguments.insert(arguments.begin(), ProgramDirectory() + "/vkgate");
  ChildProcess::Options options;
  options.output_file = log_;
  options.error_file = log_ + ".errors";
  options.in_child = std::move(in_child);
  process_ = std::make_unique<ChildProcess>(arguments, options);
  if (!Eventually([this] {
        return !Lines("listening").empty() || process_->Wait(std::chrono::milliseconds(0));
      }) ||
      Lines("listening").empty()) {
    throw std::runtime_error("vkgate does not listen: " + TextOf(log_ + ".errors"));
  }
  port_ = Lines("listening").front()["port"];
}

RunningGate::~RunningGate() {
  constexpr int kKilled = 128 + SIGKILL;
  // One that is stopping has taken its signals down: another would end it before its last words.
  const bool runs = !process_->Wait(std::chrono::milliseconds(0));
  if (runs && Lines("stopping").empty()) process_->Signal(SIGTERM);
  const auto status = process_->Wait(std::chrono::seconds(10));
  if (status == kKilled) return;
  EXPECT_EQ(status, 0) << TextOf(log_ + ".errors");
}

std::string RunningGate::Logged() const {
  return TextOf(log_);
}

std::vector<nlohmann::json> RunningGate::Lines(const std::string& event) const {
  std::vector<nlohmann::json> found;
  std::istringstream in(Logged());
  for (std::string line; std::getline(in, line);) {
    if (in.eof()) break;  // it is still being written
    const auto parsed = nlohmann::json::parse(line);
    if (parsed.at("event") == event) found.push_back(parsed);
  }
  return found;
}

nlohmann::json RunningGate::Await(const std::string& event, std::size_t count) const {
  if (!Eventually([&] { return Lines(event).size() >= count; })) {
    throw std::runtime_error("no '" + event + "' in the log:\n" + Logged());
  }
  return Lines(event)[count - 1];
}

Outcome RunProgram(const std::string& program, std::vector<std::string> arguments) {
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  options.error_file = directory.File("err");
  arguments.insert(arguments.begin(), ProgramDirectory() + "/" + program);
  ChildProcess process(arguments, options);
  const int status = process.Wait(std::chrono::seconds(30)).value_or(-1);
  return {.status = status, .out = directory.Read("out"), .err = directory.Read("err")};
}

Door::Door(int daemon_port, Words serve)
    : authority_(directory_.path().string(), "authority"),
      server_(authority_.Issue("server", {.address = "127.0.0.1"})),
      alice_(authority_.Issue("alice", {.upn = "alice@example.com"})) {
  Restart(daemon_port, std::move(serve));
}

void Door::Restart(int daemon_port, Words serve, int port) {
  serving_.reset();
  directory_.Write("serve.log", "");
  Words arguments = {"serve",
                     "--listen=127.0.0.1:" + std::to_string(port),
                     "--to=127.0.0.1:" + std::to_string(daemon_port),
                     "--certificate=" + server_.certificate,
                     "--key=" + server_.key,
                     "--authority=" + authority_.file(),
                     "--users=" + directory_.Write("users", "upn:*@example.com *\n"),
                     "--status=" + directory_.File("status.json")};
  arguments.insert(arguments.end(), serve.begin(), serve.end());
  serving_ = std::make_unique<RunningGate>(arguments, directory_.File("serve.log"));
}

std::unique_ptr<RunningGate> Door::Connect(const Identity& identity, Words more, int port) {
  Words arguments = {"connect",
                     "--listen=127.0.0.1:0",
                     "--to=127.0.0.1:" + std::to_string(port != 0 ? port : serving_->port()),
                     "--certificate=" + identity.certificate,
                     "--key=" + identity.key,
                     "--authority=" + authority_.file()};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return std::make_unique<RunningGate>(
      arguments, directory_.File("connect" + std::to_string(++connecting_) + ".log"));
}

nlohmann::json Door::Status() const {
  return nlohmann::json::parse(TextOf(directory_.File("status.json")));
}
