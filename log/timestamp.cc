#include "log/timestamp.h"

#include <array>
#include <new>

std::string timestamp() {
  return timestamp(time(nullptr));
}

std::string timestamp(time_t now) {
  // Unlike localtime_r(), this looks each time whether the zone has changed.
  const tm* local = localtime(&now);
  std::array<char, 64> text{};  // asctime_r() needs 26 for every year of four digits
  if (local == nullptr || asctime_r(local, text.data()) == nullptr) return "\n";
  try {
    return text.data();
  } catch (const std::bad_alloc&) {
    return "\n";
  }
}
