#pragma once

/// The whole program: reads the options, starts the daemon and serves connections. Returns the
/// exit status: 1 after usage, version or a failed start; in a connection child that of Answer().
/// Ends the process with status 1 when no more connections can be accepted. Does not detach from
/// the terminal.
int RunDaemon(int argc, char** argv);
