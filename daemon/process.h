#pragma once

/// Brings the process into the state that daemon and connection children rely on, whatever it was
/// started from: descriptors 0 to 2 open, SIGPIPE ignored (a master that has gone shows at the
/// next receive), SIGCHLD unblocked and handled. False, with errno set, when the SIGCHLD handler
/// cannot be installed.
[[nodiscard]] bool PrepareProcess();

/// Gives the signals back the state that a program expects at its start. Blocked and ignored ones
/// would survive an exec.
void ResetSignals();

/// Has every descriptor but the standard ones closed in what this process executes from now on. A
/// simulator may outlive its script: with a descriptor of ours it would hold the master's
/// connection, and the master would never learn that its controller has died.
void CloseOthersOnExec();
