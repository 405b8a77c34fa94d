#include "inspect/program.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "inspect/file.h"
#include "inspect/probe.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNotStarted = "the daemon cannot be started";

// Why a file cannot be executed by anybody; empty when it can, as far as its mode goes.
std::string Obstacle(const std::string& program) {
  struct stat status {};
  if (stat(program.c_str(), &status) != 0) return "cannot be looked at";
  if (!S_ISREG(status.st_mode)) return "is no regular file";
  if ((status.st_mode & 0111) == 0) return "is executable by nobody";
  struct statvfs system {};
  const bool known = statvfs(program.c_str(), &system) == 0;
  return known && (system.f_flag & ST_NOEXEC) != 0 ? "is on a file system that is mounted noexec"
                                                   : "";
}

}  // namespace

Findings CheckProgram(const Site& site) {
  Findings findings;
  const std::string& program = site.program;
  const auto add = [&](const char* id, const std::string& file, const std::string& what,
                       const std::string& consequence, const std::string& remedy) {
    findings.push_back({id, Severity::kError, file, 0, what, consequence, remedy});
  };
  std::error_code error;
  if (!fs::exists(program, error) && !error) {
    add("options.no-program", site.configuration, "the daemon " + program + " is not there",
        "it cannot be started, and its files are looked for in the wrong place",
        "install it, or name it with --program");
    return findings;
  }
  const std::string writable = WritableBy(program, !site.options.run_as_root);
  if (!writable.empty()) {
    add("program.writable", program, "can be changed by others than root: " + writable,
        "whoever can write it has root start what they like", "install it again");
    return findings;
  }
  const std::string obstacle = Obstacle(program);
  if (!obstacle.empty()) {
    add("program.not-executable", program, obstacle, kNotStarted,
        "give it the mode 0755, on a file system without noexec");
    return findings;
  }
  const auto answer =
      RunCommand({"/usr/bin/env", "-i", "LC_ALL=C", program, "-v"}, Complaints::kIncluded);
  // The daemon ends with status 1 after its version. The loader may say something before that.
  if (answer && answer->output.find("Jobmill.\n") != std::string::npos) return findings;
  std::string what = "does not answer within 10 s when it is asked for its version";
  if (answer) {
    what = "does not tell its version, but " +
           (answer->status < 0 ? "is ended by a signal"
                               : "ends with status " + std::to_string(answer->status)) +
           ": " + answer->output.substr(0, answer->output.find('\n'));
    if (what.ends_with(": ")) what.resize(what.size() - 2);
  }
  add("program.does-not-start", program, what, kNotStarted, "install it and its libraries again");
  return findings;
}

}  // namespace inspect
