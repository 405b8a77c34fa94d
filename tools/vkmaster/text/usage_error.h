#pragma once

#include <stdexcept>

namespace vkmaster {

/// Something in what the engineer typed. Nothing was sent for it; the run is as it was.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vkmaster
