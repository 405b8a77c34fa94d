#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "config/options.h"
#include "inspect/process.h"
#include "inspect/sockets.h"

namespace inspect {

/// `path` without kDeleted at its end.
std::string WithoutDeleted(std::string path);

std::string_view BaseName(std::string_view path);

/// A process of the jobmill's program, in which no other program has been started since.
struct Jobmill {
  ProcessStat stat;
  std::optional<uid_t> user;
  std::optional<std::string> program;  ///< none: may not be known
  Options options;
  std::optional<std::vector<Process::OpenFile>> files;  ///< none: may not be known

  /// The open file whose name begins and ends so; empty when there is none.
  std::string FileWith(std::string_view beginning, std::string_view end) const;

  /// What a descriptor leads to; empty when it is not open.
  std::string Target(int descriptor) const;
};

/// A socket that a process has open.
struct Link {
  int descriptor = -1;
  TcpSocket socket;
};

/// The processes and sockets of this machine when this is made, and which are the jobmill's.
class Machine {
 public:
  Machine();

  const std::map<pid_t, ProcessStat>& processes() const { return processes_; }
  const std::map<pid_t, Jobmill>& jobmills() const { return jobmills_; }
  const std::vector<TcpSocket>& sockets() const { return sockets_.all; }

  /// What could not be looked at altogether.
  const std::vector<std::string>& missing() const { return missing_; }

  bool IsJobmill(pid_t pid) const { return jobmills_.contains(pid); }
  bool IsDaemon(pid_t pid) const { return daemons_.contains(pid); }

  /// The sockets that the process has open. None are found without the right to look.
  std::vector<Link> LinksOf(const Jobmill& jobmill) const;

  std::vector<ProcessStat> ChildrenOf(pid_t parent) const;
  std::vector<ProcessStat> Descendants(pid_t ancestor) const;

  /// The process of one of `users` that has this socket open, the jobmill's aside. The first call
  /// looks through all files of these users' processes; later ones take its result for any users.
  std::optional<pid_t> OwnerOf(std::uint64_t inode, const std::set<uid_t>& users);

  /// Reads the sockets and this process once more. None when the process has ended.
  std::optional<Jobmill> ReadAgain(const Jobmill& jobmill);

 private:
  void ReadProcesses();
  void ReadSocketsAgain();
  bool IsListener(const Jobmill& jobmill) const;

  std::map<pid_t, ProcessStat> processes_;
  std::multimap<pid_t, pid_t> children_;
  std::map<pid_t, Jobmill> jobmills_;
  std::set<pid_t> daemons_;
  TcpSockets sockets_;
  std::map<std::uint64_t, TcpSocket> by_inode_;
  std::optional<std::map<std::uint64_t, pid_t>> owners_;
  std::vector<std::string> missing_;
};

}  // namespace inspect
