#include "inspect/probe.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <thread>
#include <utility>

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

// Adds to `text` what comes before `end`; true when nothing more can come.
bool ReadUntil(int input, Clock::time_point end, std::string& text) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd wait{.fd = input, .events = POLLIN, .revents = 0};
    const int ready = poll(&wait, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    std::array<char, 65536> part{};
    const ssize_t size = read(input, part.data(), part.size());
    if (size <= 0) return true;
    text.append(part.data(), static_cast<std::size_t>(size));
    if (Clock::now() >= end) return false;  // who never stops is not listened to for ever
  }
}

[[noreturn]] void Execute(std::vector<std::string> words, Complaints complaints, int output) {
  setpgid(0, 0);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int errors = complaints == Complaints::kIncluded ? output : nothing;
  if (chdir("/") != 0) _exit(127);
  for (const auto& [from, to] : {std::pair(nothing, STDIN_FILENO), std::pair(output, STDOUT_FILENO),
                                 std::pair(errors, STDERR_FILENO)}) {
    if (dup2(from, to) < 0) _exit(127);
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

Inquiry::Inquiry(const std::function<std::string()>& question, std::chrono::milliseconds limit)
    : limit_(Clock::now() + limit) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
  input_ = Descriptor(ends[0]);
  const Descriptor output(ends[1]);
  child_ = fork();
  if (child_ == 0) Answer(question, output.get());
  if (child_ < 0) input_.Reset();
}

Inquiry::~Inquiry() {
  if (input_) End(false);
  HasEnded();
}

bool Inquiry::IsDone(std::chrono::milliseconds most) {
  if (!input_) return true;
  const bool whole = ReadUntil(input_.get(), std::min(limit_, Clock::now() + most), text_);
  if (!whole && Clock::now() < limit_) return false;
  End(whole);
  return true;
}

std::optional<std::string> Inquiry::TakeAnswer() {
  if (!answered_ || !HasEnded() || status_ != 0) return {};
  return std::move(text_);
}

bool Inquiry::HasEnded() {
  if (child_ > 0 && waitpid(child_, &status_, WNOHANG) == child_) child_ = -1;
  return child_ < 0;
}

// A child that has answered has closed the pipe and is about to end: it is waited for.
void Inquiry::End(bool answered) {
  input_.Reset();
  answered_ = answered;
  if (!answered) kill(child_, SIGKILL);
  if (answered && waitpid(child_, &status_, 0) == child_) child_ = -1;
}

std::optional<std::string> Ask(const std::function<std::string()>& question,
                               std::chrono::milliseconds limit) {
  Inquiry inquiry(question, limit);
  inquiry.IsDone(limit);
  return inquiry.TakeAnswer();
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
  std::string text;
  const auto status = ReadUntil(input.get(), end, text) ? EndOf(child, end) : std::nullopt;
  if (status) return CommandAnswer{*status, std::move(text)};
  kill(-child, SIGKILL);
  EndOf(child, Clock::now() + std::chrono::seconds(1));
  return {};
}

}  // namespace inspect
