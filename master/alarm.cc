#include "master/alarm.h"

#include <stdexcept>

#ifdef _WIN32
#include <windows.h>
#else
#include <errno.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#endif

namespace master {

#ifdef _WIN32

Alarm::Alarm() : wake_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  if (wake_ == nullptr) throw std::runtime_error("no event");
}

Alarm::~Alarm() {
  CloseHandle(wake_);
}

void Alarm::Raise() noexcept {
  SetEvent(wake_);
}

void Alarm::Lower() noexcept {
  ResetEvent(wake_);
}

#else

Alarm::Alarm() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wake_ < 0) throw std::runtime_error("no event descriptor");
}

Alarm::~Alarm() {
  close(wake_);
}

void Alarm::Raise() noexcept {
  const int error = errno;
  const std::uint64_t one = 1;
  // The write fails only when the counter is full, and then the descriptor is readable already.
  [[maybe_unused]] const ssize_t put = write(wake_, &one, sizeof(one));
  errno = error;
}

void Alarm::Lower() noexcept {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = read(wake_, &count, sizeof(count));
}

#endif

}  // namespace master
