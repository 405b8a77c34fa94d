#pragma once

/// The life of one connection: the handshake with the master, the launch of the simulator and the
/// controller of the run. `info` is a CManagerInformation, which this call owns and destroys.
///
/// Returns 0 when the controller has ended, however it did, and in the script process when the
/// script could not be started. Every failure before that ends the process with status 1, after it
/// was logged and, where the protocol has a text for it, the master was told.
int Answer(void* info);
