// The door's program: `serve` in front of a daemon, `connect` beside a master. What it does is in
// the library gate; here are its options, its signals and its threads, of which there is one.
#pragma once

namespace vkgate {

enum Status {
  kOk = 0,
  kFailed = 1,  ///< it could not begin: a sentence on standard error says why
  kUsage = 2,   ///< the command line is not as it has to be
};

/// Carries out the command line until a signal ends it.
int RunProgram(int argc, const char* const* argv);

}  // namespace vkgate
