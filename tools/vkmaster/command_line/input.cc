#include "tools/vkmaster/command_line/input.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "tools/vkmaster/command_line/interrupt.h"

namespace vkmaster {

std::unique_ptr<LineSource> StandardInput(const Interrupt& interrupt) {
  return std::make_unique<DescriptorLines>(STDIN_FILENO, interrupt.wake());
}

std::optional<std::string> DescriptorLines::Next() {
  while (true) {
    const std::size_t end = buffer_.find('\n');
    if (end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    if (!ended_ && Fill()) continue;
    if (buffer_.empty()) return std::nullopt;
    return std::exchange(buffer_, {});  // the last line may have no newline
  }
}

// False at the end of the input. Half a line that has come when woken is dropped.
bool DescriptorLines::Fill() {
  std::array<pollfd, 2> wait{{{descriptor_, POLLIN, 0}, {wake_, POLLIN, 0}}};
  while (poll(wait.data(), wait.size(), -1) < 0) {
    if (errno != EINTR) break;
  }
  std::array<char, 4096> part{};
  const ssize_t got = wait[1].revents != 0 ? 0 : read(descriptor_, part.data(), part.size());
  if (got > 0) {
    buffer_.append(part.data(), static_cast<std::size_t>(got));
    return true;
  }
  ended_ = true;
  if (wait[1].revents != 0) buffer_.clear();
  return false;
}

}  // namespace vkmaster
