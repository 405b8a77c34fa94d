#pragma once

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/vkmaster/system/system.h"

namespace vkmaster {

class Session;
struct Plan;

/// run.json in the directory of a plan's results: what was run, where, by whom, when, and how it
/// ended, so that the results can be trusted when nobody remembers the run.
class RunFile {
 public:
  /// Writes the file for a run that begins, and keeps the directory for it as long as this object
  /// lives. With `overwrite` the results of an earlier run in the directory are set aside now, not
  /// before. Throws UsageError for what CheckRoom() does, which may have come during the launch,
  /// and when the file cannot be written.
  RunFile(const Plan& plan, Session& session, bool overwrite);
  RunFile(const RunFile&) = delete;
  RunFile& operator=(const RunFile&) = delete;
  ~RunFile();

  /// The run has begun in earnest: what was set aside goes.
  void Begun();

  /// For a run that has ended before that: puts back what was set aside, in place of `files` and of
  /// this one. False when nothing was. Throws std::filesystem::filesystem_error.
  bool PutBack(const std::set<std::string>& files);

  /// Writes the file anew with the end of the run. Never throws: the end may be that of the disk's
  /// room.
  void End(const std::string& how, double day, const std::set<std::string>& files);

 private:
  struct Content;
  std::string path_;
  DirectoryLock lock_;
  // The files of the earlier run: where each is now, and where it was.
  std::vector<std::pair<std::filesystem::path, std::filesystem::path>> aside_;
  std::unique_ptr<Content> content_;
};

/// Throws UsageError when no results could be written to the plan's directory, when another run
/// writes to it, when it has results already, unless `overwrite` allows to replace those of an
/// earlier run of this plan, and when it has files that could be taken for results and are none:
/// nothing is replaced but what vkmaster has written. Changes nothing.
void CheckRoom(const Plan& plan, bool overwrite);

}  // namespace vkmaster
