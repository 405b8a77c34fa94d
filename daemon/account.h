#pragma once

#include <string>

class flog;

/// Looks `windows_user` up in the user administration file beside the executable and changes this
/// process, which is root's, to the Linux account that the file names. There is no way back to
/// root.
///
/// Throws Refusal, after logging its text, when the user is unknown or may not start runs, when
/// there is no such account, and when the change fails. The process may have changed by halves
/// then and is good for nothing but to tell the master and to end.
void ChangeToAccountOf(const std::string& windows_user, flog& log);
