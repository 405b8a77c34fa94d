#pragma once

#include <memory>
#include <set>
#include <string>

namespace vkmaster {

class Session;
struct Plan;

/// run.json in the directory of a plan's results: what was run, where, by whom, when, and how it
/// ended, so that the results can be trusted when nobody remembers the run.
class RunFile {
 public:
  /// Writes the file for a run that begins. With `overwrite` the results of an earlier run in the
  /// directory go now, not before. Throws UsageError when there are such results without it, which
  /// another run may have written during the launch, and when the file cannot be written.
  RunFile(const Plan& plan, Session& session, bool overwrite);
  RunFile(const RunFile&) = delete;
  RunFile& operator=(const RunFile&) = delete;
  ~RunFile();

  /// Writes the file anew with the end of the run. Never throws: the end may be that of the disk's
  /// room.
  void End(const std::string& how, double day, const std::set<std::string>& files);

 private:
  struct Content;
  std::string path_;
  std::unique_ptr<Content> content_;
};

/// Throws UsageError when no results could be written to the plan's directory, or when it has
/// results already, unless `overwrite` allows to replace them: those of two runs would be mixed, or
/// the earlier ones lost. Changes nothing.
void CheckRoom(const std::string& directory, bool overwrite);

}  // namespace vkmaster
