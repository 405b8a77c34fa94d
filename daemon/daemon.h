#pragma once

// This folder turns a connection into a run. It is cut along the processes and what each may do:
// daemon.cc is the process that lives on and accepts; answer.cc is the life of the child that it
// forks for each connection. The child finds out what the master wants (handshake), gives up root
// (account), starts the simulator (launch, input_copy) and becomes the run's controller, which is
// the relay's. signals and process hold the state that all of them run in.

/// The whole program: reads the options, starts the daemon and serves connections. Returns the
/// exit status: 1 after usage, version or a failed start; in a connection child that of Answer().
/// Ends the process with status 1 when no more connections can be accepted. Does not detach from
/// the terminal.
int RunDaemon(int argc, char** argv);
