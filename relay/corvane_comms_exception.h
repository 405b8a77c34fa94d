#pragma once

#include <stdexcept>

/// The master's data do not follow the protocol.
class corvane_comms_exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
