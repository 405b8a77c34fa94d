// vkmaster, the master from the command line. The way of a command is the order of the folders:
// command_line/ reads options and lines, plans/ reads and carries out a file of them, commands/
// turns words into requests, session/ knows the run, output/ shows results, and text/ serves all of
// these. The program holds them together from the launch to the shutdown.
#pragma once

namespace vkmaster {

/// Returns the exit status.
int RunProgram(int argc, const char* const* argv);

}  // namespace vkmaster
