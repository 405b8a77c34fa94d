#pragma once

#include <memory>
#include <string>

class CEnvCollection;
class CManagerInformation;
class Socket;

/// The end of a connection before its controller runs. Whoever throws it has logged why.
struct Refusal {
  std::string text;  ///< for the master; nothing is sent when it is empty
};

/// The master's run request, as received and unchecked.
struct RunRequest {
  std::string cluster;    ///< a number above 0 marks a cluster run
  std::string path;       ///< data directory
  std::string root;       ///< name of the model's files, without extension
  std::string processes;  ///< number of processes
  std::string version;    ///< connector version
  std::string windowsUser;
  std::string debugFlag;
};

/// Sends one line. That a link is broken shows at the next receive; a line that there is no memory
/// for has the master and this process wait for each other, so that throws std::bad_alloc.
void SendLine(Socket& master, const std::string& line);

/// Exchanges versions with the master, reads its run request, applies the environment file to this
/// process and, when the daemon runs as root, switches it for good to the Linux account of the
/// Windows user. `environment` receives the entries of the environment file. Blocks for the
/// master. Throws Refusal.
RunRequest ShakeHands(const CManagerInformation& info,
                      std::unique_ptr<CEnvCollection>& environment);
