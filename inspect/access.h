#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "inspect/account.h"
#include "inspect/site.h"

namespace inspect {

/// Something that every run opens or executes.
struct Need {
  std::string id;                  ///< of the finding
  std::string file;                ///< of the finding: what has the need, such as a script
  std::int64_t line = 0;           ///< of that file; 0 without one
  std::string what;                ///< in front of "cannot be executed"
  std::vector<std::string> files;  ///< any of them will do; obstacles are told of the first
  int mode = 0;                    ///< as for access(2)
};

/// The accounts as which the site's users run, as far as they exist and are known.
std::map<std::string, Account> AccountsOf(const Site& site);

/// For each need what keeps accounts from it, and the names of these, with commas between.
struct Excluded {
  std::vector<std::map<std::string, std::string>> names;
  bool all_asked = false;  ///< otherwise only this process's account was tried: the rest needs root
};
Excluded FindExcluded(const Site& site, const std::vector<Need>& needs);

/// A finding for each need that somebody cannot have.
void AddExcluded(const std::vector<Need>& needs, const Excluded& excluded, Findings& findings);

/// Those of `files` that are regular files; none when a file system does not answer in ten seconds.
std::vector<std::string> RegularFiles(const std::vector<std::string>& files);

/// The absolute names that a program can have in the directories of a search path.
std::vector<std::string> InDirectories(const std::string& path, const std::string& program);

}  // namespace inspect
