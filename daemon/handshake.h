#pragma once

#include <string>

class CManagerInformation;
class Socket;

/// The master's run request, as received and unchecked.
struct RunRequest {
  std::string cluster;    ///< a number above 0 marks a cluster run
  std::string path;       ///< data directory
  std::string root;       ///< name of the model's files, without extension
  std::string processes;  ///< number of processes
  std::string version;    ///< "20162" for version 2016.2 of the simulator, any other for 2017.2
  std::string windows_user;
  std::string debug_flag;
};

/// Sends one line. A broken link is no failure here: it shows at the next receive. Without memory
/// for the line this throws std::bad_alloc, since the master and this process would wait for each
/// other.
void SendLine(Socket& master, const std::string& line);

/// Exchanges versions with the master, reads its run request, applies the environment file to this
/// process and, when the daemon runs as root, changes it for good to the Linux account of the
/// Windows user. Blocks for the master. Throws Refusal.
RunRequest ShakeHands(const CManagerInformation& info);
