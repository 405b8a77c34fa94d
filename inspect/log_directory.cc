#include "inspect/log_directory.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>

#include "inspect/listener.h"
#include "inspect/probe.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long kLeastRoom = 100UL << 20;
constexpr const char* kToTmp = "the log goes to /tmp";

// The attribute of a file that keeps even root from replacing it; empty when it has none.
std::string Attribute(const std::string& file) {
  struct statx status {};
  if (statx(AT_FDCWD, file.c_str(), AT_SYMLINK_NOFOLLOW, 0, &status) != 0) return "";
  if ((status.stx_attributes & STATX_ATTR_IMMUTABLE) != 0) return "is immutable (chattr -i)";
  if ((status.stx_attributes & STATX_ATTR_APPEND) != 0) return "is append-only (chattr -a)";
  return "";
}

// "ROOM OBSTACLE": the free bytes, and what keeps the daemon from writing there. Whether this
// process may write there is asked only `as_daemon`, when it has the daemon's rights.
std::string LookAt(const std::string& directory, bool as_daemon) {
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) return std::string("0 ") + strerror(errno);
  if (!S_ISDIR(status.st_mode)) return "0 is no directory";
  struct statvfs system {};
  if (statvfs(directory.c_str(), &system) != 0) return std::string("0 ") + strerror(errno);
  const bool inodes = system.f_files == 0 || system.f_favail > 0;
  std::string answer = std::to_string(inodes ? system.f_bavail * system.f_frsize : 0) + " ";
  if ((system.f_flag & ST_RDONLY) != 0) return answer + "is on a file system that is read-only";
  const std::string attribute = Attribute(directory);
  if (!attribute.empty()) return answer + attribute;
  if (as_daemon && faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    answer += std::string("cannot be written: ") + strerror(errno);
  }
  return answer;
}

class LogCheck {
 public:
  LogCheck(const Site& site, std::string directory, Findings& findings)
      : site_(site), directory_(std::move(directory)), findings_(findings) {}

  void All() {
    std::string place = directory_;
    std::error_code ignored;
    // The unit makes its directory when it starts.
    if (!site_.configuration.empty() && !fs::exists(fs::symlink_status(place, ignored))) {
      place = fs::path(place).parent_path();
    }
    const bool as_daemon = geteuid() == 0 || !site_.options.run_as_root;
    const auto answer = Ask([&] { return LookAt(place, as_daemon); });
    if (!answer) {
      Add("host.no-log-directory", Severity::kError, place, "its file system does not answer",
          "the daemon waits for it", "see to the file system");
      return;
    }
    std::istringstream parts(*answer);
    unsigned long room = 0;
    std::string obstacle;
    parts >> room;
    std::getline(parts >> std::ws, obstacle);
    if (!obstacle.empty()) {
      AddUnusable(place, obstacle);
    } else if (room < kLeastRoom) {
      Add("host.log-room", Severity::kWarning, place,
          "only " + std::to_string(room >> 20) + " MiB are free",
          "lines of the log are lost when there is no room", "make room");
    }
    CheckFile();
    CheckRunning();
  }

 private:
  void Add(const char* id, Severity severity, const std::string& file, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back({id, severity, file, 0, what, consequence, remedy});
  }

  void AddUnusable(const std::string& place, const std::string& obstacle) {
    const bool unit = !site_.configuration.empty();
    Add("host.no-log-directory", unit ? Severity::kError : Severity::kWarning, place, obstacle,
        unit ? "the service does not start, or its log is not written" : kToTmp,
        "make it a directory that the daemon can write");
  }

  std::string Name() const {
    return "VKJobmill_" + std::to_string(site_.options.listen_port) + ".log";
  }

  // Each start begins a fresh log in the place of the old one.
  void CheckFile() {
    const std::string file = directory_ + "/" + Name();
    std::error_code ignored;
    const std::string attribute = Attribute(file);
    const bool full_directory =
        fs::is_directory(fs::symlink_status(file, ignored)) && !fs::is_empty(file, ignored);
    if (attribute.empty() && !full_directory) return;
    Add("host.log-not-replaced", Severity::kWarning, file,
        full_directory ? "is a directory that is not empty" : attribute,
        std::string("no fresh log can be put in its place: ") + kToTmp + ", or after the old lines",
        "move it away");
  }

  // What the daemon that runs has as its log.
  void CheckRunning() {
    const auto daemon = DaemonOn(site_.options.listen_port);
    const auto files = daemon ? daemon->Files() : std::nullopt;
    if (!files) return;
    for (const Process::OpenFile& open : *files) {
      const std::string name = open.target.substr(open.target.rfind('/') + 1);
      const bool gone = name.starts_with(Name()) && name.ends_with(kDeleted);
      if (gone || open.target == "/tmp/" + Name()) {
        Add("host.log-elsewhere", Severity::kWarning, directory_ + "/" + Name(),
            Described(daemon) + " writes its log " +
                (gone ? "to a file that was removed or replaced" : "to " + open.target),
            "nobody finds it here", "jobmillctl restart --when-idle");
      }
    }
  }

  const Site& site_;
  std::string directory_;
  Findings& findings_;
};

}  // namespace

Findings CheckLogDirectory(const Site& site, std::string directory) {
  Findings findings;
  if (directory.empty()) directory = site.configuration.empty() ? "/var/log" : "/var/log/jobmill";
  LogCheck(site, std::move(directory), findings).All();
  return findings;
}

}  // namespace inspect
