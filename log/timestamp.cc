#include "log/timestamp.h"

#include <time.h>

#include <array>

std::string timestamp() {
  const time_t now = time(nullptr);
  tm local{};
  std::array<char, 64> text{};  // asctime_r() needs 26 for every year of four digits
  if (localtime_r(&now, &local) == nullptr || asctime_r(&local, text.data()) == nullptr) {
    return "\n";
  }
  return text.data();
}
