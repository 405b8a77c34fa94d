// The administrator's program. What it says it knows from the library inspect; here is how it is
// asked and how it answers.
#pragma once

namespace jobmillctl {

/// Carries out the command line and returns the exit status (command.h).
int RunProgram(int argc, const char* const* argv);

}  // namespace jobmillctl
