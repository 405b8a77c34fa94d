#include "tools/vkmaster/command_line/interrupt.h"

#include <errno.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace vkmaster {
namespace {

volatile sig_atomic_t g_signal = 0;
volatile sig_atomic_t g_count = 0;
int g_descriptor = -1;

void OnSignal(int number) {
  const int error = errno;
  g_signal = number;
  g_count = g_count + 1;
  const std::uint64_t one = 1;
  // The write fails only when the counter is full, and then the descriptor is readable already.
  [[maybe_unused]] const ssize_t put = write(g_descriptor, &one, sizeof(one));
  errno = error;
}

}  // namespace

Interrupt::Interrupt() {
  g_descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (g_descriptor < 0) throw std::runtime_error("no event descriptor");
  struct sigaction action {};
  action.sa_handler = OnSignal;
  // Without SA_RESTART: a read at the prompt has to return.
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

int Interrupt::descriptor() const {
  return g_descriptor;
}

int Interrupt::signal() const {
  return g_signal;
}

int Interrupt::count() const {
  return g_count;
}

void Interrupt::Clear() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = read(g_descriptor, &count, sizeof(count));
  g_signal = 0;
  g_count = 0;
}

}  // namespace vkmaster
