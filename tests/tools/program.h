#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"

/// What a program left behind.
struct Outcome {
  int status = -1;  ///< exit status; -1 when it had to be killed
  std::string out;
  std::string err;
};

inline std::string VkmasterExecutable() {
  return ProgramDirectory() + "/vkmaster";
}

/// The vkmaster program in a process of its own, with pipes for all it reads and writes.
class VkmasterProcess {
 public:
  explicit VkmasterProcess(std::vector<std::string> arguments) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    for (auto* ends : {&in, &out, &err}) {
      if (pipe2(ends->data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    }
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 2);
    arguments.insert(arguments.begin(), VkmasterExecutable());
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(err[1], 2);
      execv(argv[0], argv.data());
      _exit(126);
    }
    in_ = Descriptor(in[1]);
    out_ = Descriptor(out[0]);
    err_ = Descriptor(err[0]);
    for (const int end : {in[0], out[1], err[1]}) close(end);
  }
  VkmasterProcess(const VkmasterProcess&) = delete;
  VkmasterProcess& operator=(const VkmasterProcess&) = delete;
  ~VkmasterProcess() {
    if (pid_ > 0) Stop();
  }

  pid_t pid() const { return pid_; }
  int output() const { return out_.get(); }  ///< the reading end, as errors() is
  int errors() const { return err_.get(); }
  void Type(const std::string& text) const { WriteAll(in_.get(), text); }
  void Signal(int number) const { kill(pid_, number); }

  void CloseOutput() { out_.Reset(); }

  /// Blocks for a line of its standard output.
  std::string ReadLine() {
    std::string line;
    char c = 0;
    while (read(out_.get(), &c, 1) == 1 && c != '\n') line += c;
    return line;
  }

  /// Closes its input and waits for its end, half a minute at most.
  Outcome Finish() {
    in_.Reset();
    Outcome outcome;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool late = false;
    while (!late && (out_.get() >= 0 || err_.get() >= 0)) {
      std::array<pollfd, 2> wait{{{out_.get(), POLLIN, 0}, {err_.get(), POLLIN, 0}}};
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      late =
          left.count() <= 0 || poll(wait.data(), wait.size(), static_cast<int>(left.count())) == 0;
      if (wait[0].revents != 0) Drain(out_, outcome.out);
      if (wait[1].revents != 0) Drain(err_, outcome.err);
    }
    if (late) {
      Stop();
      return outcome;
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
  }

 private:
  static void Drain(Descriptor& from, std::string& text) {
    std::array<char, 4096> part{};
    const ssize_t got = read(from.get(), part.data(), part.size());
    if (got > 0) text.append(part.data(), static_cast<std::size_t>(got));
    if (got <= 0) from.Reset();
  }
  void Stop() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  pid_t pid_ = -1;
  Descriptor in_;
  Descriptor out_;
  Descriptor err_;
};

/// The options of a launch through a daemon on `port`, and `more` after them.
inline std::vector<std::string> LaunchArguments(int port, const std::vector<std::string>& more) {
  std::vector<std::string> arguments{"--host", "127.0.0.1", "--port", std::to_string(port),
                                     "--path", "/data/",    "--root", "CASE",
                                     "--user", "alice"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

inline Outcome RunVkmaster(const std::vector<std::string>& arguments, const std::string& in = "") {
  VkmasterProcess process(arguments);
  process.Type(in);
  return process.Finish();
}
