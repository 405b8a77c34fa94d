#pragma once

#include <stdexcept>

namespace vkmaster {

/// The engineer typed something that cannot be understood or done. Nothing was sent for it, and the
/// run goes on as before.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vkmaster
