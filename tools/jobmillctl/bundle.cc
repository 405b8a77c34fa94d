#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/descriptor.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "tools/jobmillctl/bundle_files.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/since.h"

namespace jobmillctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolder = "jobmill-bundle";

// A directory that nobody else can enter. It goes with the object.
class PrivateDirectory {
 public:
  PrivateDirectory() : name_((fs::temp_directory_path() / "jobmill-bundle-XXXXXX").string()) {
    if (mkdtemp(name_.data()) == nullptr) {
      throw Failed(fmt::format("{} cannot be made: {}", name_, strerror(errno)));
    }
  }
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;
  ~PrivateDirectory() {
    std::error_code ignored;
    fs::remove_all(name_, ignored);
  }

  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

// The files as a compressed archive, made by tar. File names and environment can hold options of
// tar: nobody but this program says what they are.
std::string Packed(const std::vector<BundleFile>& files) {
  const PrivateDirectory directory;
  for (const BundleFile& file : files) {
    const fs::path path = fs::path(directory.name()) / kFolder / file.name;
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << file.text;
    out.close();
    if (!out) throw Failed(fmt::format("{} cannot be written", path.string()));
  }
  const auto answer =
      inspect::RunCommand({"/usr/bin/env", "-i", "PATH=/usr/bin:/bin", "tar", "--create", "--gzip",
                           "--file=-", "--format=ustar", "--owner=root:0", "--group=root:0",
                           "--mode=go=", "--sort=name", "--directory=" + directory.name(), kFolder},
                          inspect::Complaints::kLeftOut, std::chrono::minutes(5));
  if (!answer || answer->status != 0) throw Failed("tar could not pack the files");
  return answer->output;
}

// A file that was not there before and that nobody else can read.
Descriptor CreateFile(const std::string& name) {
  Descriptor file(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) throw Failed(fmt::format("{} cannot be made: {}", name, strerror(errno)));
  return file;
}

void Write(const Descriptor& file, const std::string& name, const std::string& text) {
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t size = write(file.get(), text.data() + written, text.size() - written);
    if (size <= 0) throw Failed(fmt::format("{} cannot be written: {}", name, strerror(errno)));
    written += static_cast<std::size_t>(size);
  }
}

std::string Contents(const std::vector<BundleFile>& files, bool of_everybody) {
  std::string text = "Left out: the values of the environment file, the list of those who may run";
  text += of_everybody ? "\n" : ", other accounts' runs\n";
  for (const BundleFile& file : files) {
    text += fmt::format("{:>10}  {:<50} {}\n", file.text.size(), file.name, file.what);
  }
  return text;
}

int Bundle(const std::string& run, const std::string& name, double since, bool yes) {
  std::vector<BundleFile> files = FilesOfBundle(run, since);
  const std::string contents = Contents(files, run.empty() && geteuid() == 0);
  fmt::print("{}", contents);
  files.push_back({"contents.txt", "", contents});
  const std::string question = fmt::format("Write them to {}?", inspect::Printable(name));
  if (!yes && !IsWanted(question)) {
    fmt::print("Nothing was written\n");
    return kNotGood;
  }
  const Descriptor file = CreateFile(name);
  try {
    Write(file, name, Packed(files));
  } catch (...) {
    unlink(name.c_str());
    throw;
  }
  Print(fmt::format("{} is written; only this account can read it", name));
  return kOk;
}

}  // namespace

void DeclareBundle(CLI::App& app, Action& chosen) {
  struct Given {
    std::string first;
    std::string second;
    std::string since = "2d";
    bool all = false;
    bool yes = false;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* command = app.add_subcommand(
      "bundle", "Put what support needs about a run into one archive, and say what that is");
  command->add_option("RUN", given->first,
                      "The run: its number, root name, job or id in the history; not with --all");
  command->add_option("FILE", given->second, "The archive, a .tar.gz, which may not exist yet");
  command->add_flag("--all", given->all, "All runs since that time");
  DeclareSince(*command, given->since, "With --all: since when (default: 2d)");
  command->add_flag("--yes", given->yes, "Do not ask");
  command->callback([given, &chosen] {
    if (given->all && given->second.empty()) std::swap(given->first, given->second);
    if (given->second.empty() || given->all == !given->first.empty()) {
      throw CLI::RequiredError("RUN FILE, or --all FILE,");
    }
    chosen = [given] {
      return Bundle(given->first, given->second, TimeOf(given->since), given->yes);
    };
  });
}

}  // namespace jobmillctl
