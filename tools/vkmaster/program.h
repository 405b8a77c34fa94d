// vkmaster, the master from the command line. The way of a command is the order of the folders:
// command_line/ reads options and lines, plans/ reads and carries out a file of commands, commands/
// turns words into requests, session/ knows the run, output/ shows results, report/ makes a page of
// them. text/ serves all of these, and system/ is what differs between Linux and Windows. The
// program holds them together from the launch to the shutdown.
#pragma once

namespace vkmaster {

/// Returns the exit status.
int RunProgram(int argc, const char* const* argv);

}  // namespace vkmaster
