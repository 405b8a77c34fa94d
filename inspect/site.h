#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/options.h"
#include "inspect/finding.h"

namespace inspect {

/// What a daemon started with certain options would use. Names of files are absolute.
struct Site {
  std::string name;           ///< "jobmill" for jobmill.conf; empty: the options are given directly
  std::string configuration;  ///< the file that the options are read from; empty: given directly
  std::string others;         ///< the directory of all configuration files
  std::int64_t line = 0;      ///< of the options in that file; 0 where it has none
  int error = 0;              ///< why the file could not be read, as in errno; no `words` then

  std::vector<std::string> words;  ///< what the daemon gets after its own name
  Options options;                 ///< as the daemon understands them
  std::string script;              ///< the one that it starts; relative as it is given

  std::string program;    ///< the daemon's executable, without links
  std::string directory;  ///< its working directory

  /// What its environment has at its start, as far as that is known.
  std::map<std::string, std::string> environment;

  /// Where the daemon's executable lies.
  std::string ProgramDirectory() const;

  /// The file that the daemon looks for under `file` beside its executable.
  std::string BesideProgram(const std::string& file) const;

  /// The file `configured` beside the configuration file that the daemon is started with, when
  /// there is one and the daemon's `file` beside its executable does not lead there; otherwise
  /// empty.
  std::string NotLinked(const std::string& file, const std::string& configured) const;

  /// The script's name from the root directory on.
  std::string ScriptFile() const;
};

/// Where the units' configuration files lie.
inline constexpr const char* kConfigurationDirectory = "/etc/jobmill";

/// The site of a daemon that is started by hand, here and now: with this process's environment
/// and working directory. `directory` is that of the configuration files of other daemons.
Site SiteOf(const std::vector<std::string>& words, const std::string& program,
            const std::string& directory = kConfigurationDirectory);

/// The site of a daemon that the unit starts with `directory`/`name`.conf, read as systemd reads
/// it. Its environment is that of such a daemon where one runs and this process may see that,
/// otherwise what systemd gives to every service and that file sets.
Site SiteOf(const std::string& directory, const std::string& name, const std::string& program);

/// The variables that an environment file of systemd sets, each with the line on which it begins.
struct Assignment {
  std::string value;
  std::int64_t line = 0;
};
std::map<std::string, Assignment> ReadAssignments(const std::string& text);

/// The words that systemd makes of a variable that stands as "$NAME" in a command.
std::vector<std::string> SplitWords(const std::string& value);

}  // namespace inspect
