#pragma once

/// Reaps every child that has finished, so that none stays a zombie; nobody asks for their exit
/// statuses. Touches nothing but errno.
void handle_sigchld(int);

/// Closes the listening socket. It is installed for no signal: SIGTERM keeps its default action,
/// which ends the daemon, and the system then closes the socket. The function is part of the
/// daemon's fixed interface.
void handle_term(int);
