#pragma once

#include <string>

/// The end of a connection before its controller runs. Whoever throws it has logged the reason.
struct Refusal {
  std::string text;  ///< for the master; nothing is sent when it is empty
};
