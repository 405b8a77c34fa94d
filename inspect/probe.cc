#include "inspect/probe.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <exception>

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

}  // namespace inspect
