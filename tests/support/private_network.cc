#include "tests/support/private_network.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <exception>

namespace {

constexpr int kNotPermitted = 77;

bool LoopbackUp() {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return false;
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
  request.ifr_flags = IFF_UP;
  const bool up = ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
  close(descriptor);
  return up;
}

[[noreturn]] void RunChild(const std::function<std::string()>& body, int result) {
  if (!EnterPrivateNetwork() && (unshare(CLONE_NEWUSER) != 0 || !EnterPrivateNetwork())) {
    _exit(kNotPermitted);
  }
  std::string text;
  try {
    text = body();
  } catch (const std::exception& error) {
    text = error.what();
  }
  _exit(write(result, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
}

}  // namespace

bool EnterPrivateNetwork() {
  return unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && LoopbackUp();
}

std::optional<std::string> InPrivateNetwork(const std::function<std::string()>& body) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return std::nullopt;
  const pid_t child = fork();
  if (child == 0) RunChild(body, ends[1]);
  close(ends[1]);
  std::string text;
  std::array<char, 1024> piece{};
  ssize_t got = 0;
  while ((got = read(ends[0], piece.data(), piece.size())) > 0)
    text.append(piece.data(), static_cast<std::size_t>(got));
  close(ends[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return std::nullopt;
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotPermitted) return std::nullopt;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) text += " (the child failed)";
  return text;
}
