#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace inspect {

/// What is known of the launch of a run, by which it is looked for in the log.
struct LaunchKey {
  std::time_t started = 0;           ///< when its connection child started, give or take a second
  std::optional<std::string> path;   ///< unknown: any
  std::optional<std::string> root;   ///< as the script got it
  std::optional<int> port;           ///< the comms port
  std::optional<std::string> model;  ///< path and root name, one after the other
};

/// A launch as the log tells it.
struct Launch {
  std::string path;
  std::string root;  ///< as the script got it
  int processes = 0;
  int port = 0;
  std::optional<std::string> windows_user;  ///< none where lines of several launches are mixed
  std::optional<std::string> version;
};

/// The log of a daemon. Its lines carry no sign of the connection that they belong to, those of
/// connections at the same time are mixed, and masters can put line ends into their texts. So a
/// line is only taken for a launch's where it can be no other's.
class DaemonLog {
 public:
  /// `text` has to outlive this object.
  explicit DaemonLog(std::string_view text);

  /// None when no launch, or more than one, can be meant.
  std::optional<Launch> Find(const LaunchKey& key) const;

  /// The scheduler and the number of the job that a shipped distribution script has submitted under
  /// the name `job_name`, which no two jobs share.
  struct Job {
    std::string scheduler;
    std::string number;
  };
  std::optional<Job> FindJob(std::string_view job_name) const;

 private:
  struct Request {  // "Clust: " to "Ver: "
    std::size_t line = 0;
    std::string path;
    std::string root;
    std::string version;
  };
  struct Answered {  // the line with which a connection child begins
    std::size_t line = 0;
    std::time_t time = 0;
  };
  struct Script {  // "Argument list" to "Arg 6: "
    std::size_t line = 0;
    std::string path;
    std::string root;
    int processes = 0;
    int port = 0;
  };

  std::string_view Line(std::size_t index) const;
  std::optional<std::string> Value(std::size_t line, std::string_view label) const;
  void ReadRequest(std::size_t line);
  void ReadScript(std::size_t line);
  std::optional<std::size_t> FirstLineSince(std::time_t started) const;
  void AddRequest(std::size_t first, std::size_t last, Launch& launch) const;

  std::vector<std::string_view> lines_;
  std::vector<Request> requests_;
  std::vector<Script> scripts_;
  std::vector<std::size_t> users_;  // the lines that tell a Windows user
  std::vector<Answered> answered_;
  std::vector<std::size_t> jobs_;  // the lines that may tell a job
};

}  // namespace inspect
