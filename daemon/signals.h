#pragma once

/// Reaps every child that has finished, so that none stays a zombie; nobody asks for their exit
/// statuses. Touches nothing but errno.
void handle_sigchld(int);

/// Closes the listening socket. Installed for no signal: SIGTERM keeps its default action.
void handle_term(int);

/// Brings the process into the state that daemon and connection children rely on, whatever it was
/// started from: descriptors 0 to 2 open, SIGPIPE ignored (a master that has gone shows at the
/// next receive), SIGCHLD unblocked and handled. False, with errno set, when the SIGCHLD handler
/// cannot be installed.
bool PrepareProcess();
