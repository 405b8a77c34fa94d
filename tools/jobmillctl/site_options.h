#pragma once

#include <string>
#include <vector>

#include "inspect/site.h"

namespace CLI {
class App;
}

namespace jobmillctl {

/// Declares the option that names the daemon's executable.
void DeclareProgram(CLI::App& command, std::string& program);

/// The daemon's executable: what was given, or else vkjobmill.exe beside this program, without
/// links.
std::string DaemonProgram(const std::string& given);

/// The part of a command line that says which daemons are meant.
class SiteOptions {
 public:
  void Declare(CLI::App& command);

  /// Throws CLI::ValidationError when what was given has no meaning.
  void Validate() const;

  /// A site for each NAME, that of jobmill when there is no NAME; or the one that the options after
  /// "--" describe.
  std::vector<inspect::Site> Sites() const;

 private:
  bool OptionsAreGiven() const;

  std::vector<std::string> words_;
  std::string program_;
  std::string directory_ = inspect::kConfigurationDirectory;
};

}  // namespace jobmillctl
