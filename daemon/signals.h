#pragma once

/// Reaps every child that has finished, so that none stays a zombie; nobody asks for their exit
/// statuses. Touches nothing but errno.
void handle_sigchld(int);

/// Closes the listening socket. Installed for no signal: SIGTERM keeps its default action.
void handle_term(int);
