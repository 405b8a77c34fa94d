#include "inspect/probe.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <thread>

#include "base/descriptor.h"

namespace inspect {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Answer(const std::function<std::string()>& question, int output) {
  try {
    const std::string answer = question();
    for (std::size_t sent = 0; sent < answer.size();) {
      const ssize_t size = write(output, answer.data() + sent, answer.size() - sent);
      if (size < 0) _exit(1);
      sent += static_cast<std::size_t>(size);
    }
    _exit(0);
  } catch (const std::exception&) {
    _exit(1);
  }
}

// All up to the end of `input`; nothing when that does not come in time.
std::optional<std::string> ReadAll(int input, Clock::time_point end) {
  std::string text;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd wait{.fd = input, .events = POLLIN, .revents = 0};
    if (left.count() <= 0) return {};
    const int ready = poll(&wait, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return {};
    std::array<char, 4096> part{};
    const ssize_t size = read(input, part.data(), part.size());
    if (size <= 0) return text;
    text.append(part.data(), static_cast<std::size_t>(size));
  }
}

[[noreturn]] void Execute(std::vector<std::string> words, Complaints complaints, int output) {
  setpgid(0, 0);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int errors = complaints == Complaints::kIncluded ? output : nothing;
  if (chdir("/") != 0 || dup2(nothing, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
      dup2(errors, STDERR_FILENO) < 0) {
    _exit(127);
  }
  setenv("LC_ALL", "C", 1);
  std::vector<char*> vector;
  vector.reserve(words.size() + 1);
  for (std::string& word : words) vector.push_back(word.data());
  vector.push_back(nullptr);
  execvp(vector[0], vector.data());
  _exit(127);
}

// The end of a child; nothing when it does not come in time.
std::optional<int> EndOf(pid_t child, Clock::time_point end) {
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (Clock::now() >= end) return {};
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::optional<std::string> Ask(const std::function<std::string()>& question,
                               std::chrono::milliseconds limit) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  const Descriptor input(ends[0]);
  Descriptor output(ends[1]);
  const pid_t child = fork();
  if (child < 0) return {};
  if (child == 0) Answer(question, output.get());
  output.Reset();
  auto answer = ReadAll(input.get(), Clock::now() + limit);
  if (!answer) kill(child, SIGKILL);
  int status = 0;
  // A process that hangs in a file system does not even end when it is killed.
  const pid_t ended = waitpid(child, &status, answer ? 0 : WNOHANG);
  if (!answer || ended != child || status != 0) return {};
  return answer;
}

std::optional<CommandAnswer> RunCommand(const std::vector<std::string>& words,
                                        Complaints complaints, std::chrono::milliseconds limit) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  const Descriptor input(ends[0]);
  Descriptor output(ends[1]);
  const pid_t child = fork();
  if (child < 0) return {};
  if (child == 0) Execute(words, complaints, output.get());
  setpgid(child, child);  // whoever comes first, this process or the child
  output.Reset();
  const auto end = Clock::now() + limit;
  auto text = ReadAll(input.get(), end);
  const auto status = text ? EndOf(child, end) : std::nullopt;
  if (status) return CommandAnswer{*status, *std::move(text)};
  kill(-child, SIGKILL);
  EndOf(child, Clock::now() + std::chrono::seconds(1));
  return {};
}

}  // namespace inspect
