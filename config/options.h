#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The command line of the daemon. What looks at the daemon from outside reads it here, too.
struct Options {
  std::int32_t listen_port = 0;  ///< 0: none given
  std::int32_t start_timeout = 60;
  std::int32_t comms_base_port = 9001;
  std::int32_t comms_ports = 100;
  std::string script;  ///< empty: none given
  bool run_as_root = true;
  bool comms_log = false;
  bool version = false;  ///< print the version and nothing else
};

/// Reads the arguments from argv[1] on. Every argument is looked at, the values of options too, and
/// passed over when it is no option. An option at the very end is its own value. Numbers below
/// their lower bound are raised to it, texts without digits read as 0. Stops at the version
/// option.
Options ParseOptions(int argc, const char* const* argv);

/// The same for the words of a command line, the program's own name included.
Options ParseOptions(const std::vector<std::string>& words);
