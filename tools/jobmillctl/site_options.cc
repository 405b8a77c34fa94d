#include "tools/jobmillctl/site_options.h"

#include <filesystem>

#include <CLI/CLI.hpp>

#include "inspect/file.h"

namespace jobmillctl {
namespace {

bool IsOption(const std::string& word) {
  return word.starts_with('-');
}

}  // namespace

void DeclareProgram(CLI::App& command, std::string& program) {
  command
      .add_option("--program", program,
                  "The daemon's executable (default: vkjobmill.exe beside this program)")
      ->type_name("FILE");
}

std::string DaemonProgram(const std::string& given) {
  const std::filesystem::path self = inspect::RealName("/proc/self/exe");
  return inspect::RealName(given.empty() ? (self.parent_path() / "vkjobmill.exe").string() : given);
}

void SiteOptions::Declare(CLI::App& command) {
  command.add_option(
      "NAME", words_,
      "Daemons, by their configuration files NAME.conf (default: jobmill); or, after "
      "\"--\", the options of a daemon that would be started here");
  DeclareProgram(command, program_);
  command.add_option("--configuration", directory_, "Where the configuration files lie")
      ->type_name("DIR")
      ->capture_default_str();
}

void SiteOptions::Validate() const {
  if (OptionsAreGiven()) return;
  for (const std::string& word : words_) {
    if (IsOption(word)) {
      throw CLI::ValidationError(word, "options come after \"--\", without names");
    }
    if (word.empty() || word.find('/') != std::string::npos) {
      throw CLI::ValidationError(word, "a name is what stands before .conf");
    }
  }
}

std::vector<inspect::Site> SiteOptions::Sites() const {
  const std::string program = DaemonProgram(program_);
  if (OptionsAreGiven()) return {inspect::SiteOf(words_, program, directory_)};
  std::vector<inspect::Site> sites;
  for (const std::string& name : words_.empty() ? std::vector<std::string>{"jobmill"} : words_) {
    sites.push_back(inspect::SiteOf(directory_, name, program));
  }
  return sites;
}

bool SiteOptions::OptionsAreGiven() const {
  return !words_.empty() && IsOption(words_.front());
}

}  // namespace jobmillctl
