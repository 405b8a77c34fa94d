#pragma once

#include <functional>
#include <string>
#include <vector>

#include "inspect/user_file.h"

namespace jobmillctl {

/// Changes the lines of the user administration file that the daemon in `directory` reads. `change`
/// is given the file as it is, and its lines to work on; it may change, add or remove records,
/// which are the first lines, and returns false when nothing is to be written.
///
/// The daemon, which reads the file for each connection, sees either the old or the new one whole:
/// the new one is a fresh file of the same mode and owner in place of the file that links lead to.
/// One edit waits for another, ten seconds at most. Throws Failed, with the file as it was, when
/// the daemon would not read all records of the new one, when somebody else has changed the file
/// meanwhile, and when the system refuses something.
void EditUserFile(const std::string& directory,
                  const std::function<bool(const inspect::UserFile& file,
                                           std::vector<std::string>& lines)>& change);

}  // namespace jobmillctl
