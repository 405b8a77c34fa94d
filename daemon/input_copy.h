#pragma once

#include <string>

/// Copies the file `source` to `target` with the system's cp, in a directory that anybody may have
/// filled: cp is given two descriptors and no names.
///
/// A link is followed as a source when it belongs to this process's user or to root, by the text
/// that it holds when it is looked at; otherwise only a regular file is taken. The target is a
/// fresh file of the mode that cp would give it; where the directory takes none, the regular file
/// that is there, without other names, of this user or of the source's owner. Names end at a zero
/// byte.
///
/// False when the copy is refused for one of these reasons, or because the target is not beside the
/// source, or when no process could be had for cp or waited for. What cp itself cannot copy is not
/// looked at: a missing source leaves the target as it is, a full disk a part of it. The reason
/// stands on standard error. Descriptors that are not closed on exec reach cp.
bool CopyInput(const std::string& source, const std::string& target);
