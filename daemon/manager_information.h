#pragma once

#include <cstdint>
#include <string>

class Socket;
class flog;

/// What the daemon hands over to one connection child.
class CManagerInformation {
 public:
  /// Takes over `acceptedMaster`; `daemonLog` stays the caller's.
  CManagerInformation(std::string distributionScript, bool asRoot, std::int32_t timeoutSeconds,
                      std::int32_t port, bool withCommsLog, flog* daemonLog,
                      Socket* acceptedMaster);
  CManagerInformation(const CManagerInformation&) = delete;
  CManagerInformation& operator=(const CManagerInformation&) = delete;

  /// Closes the connection to the master and deletes its socket.
  virtual ~CManagerInformation();

  std::string script;         ///< path of the distribution script
  bool runAsRoot;             ///< check the Windows user and switch to the mapped account
  std::int32_t startTimeout;  ///< seconds that the simulator has to start listening
  std::int32_t commsPort;     ///< port of this run's simulator
  bool commsLog;              ///< write a comms log in the data directory
  flog* log;                  ///< the daemon log, not owned
  Socket* master;             ///< the accepted connection, owned
};
