#pragma once

#include <cstdint>
#include <string>

class Socket;
class flog;

/// What the daemon hands over to one connection child.
class CManagerInformation {
 public:
  /// Takes over `accepted_master`; `daemon_log` stays the caller's.
  CManagerInformation(std::string distribution_script, bool as_root, std::int32_t timeout_seconds,
                      std::int32_t port, bool with_comms_log, flog* daemon_log,
                      Socket* accepted_master);
  CManagerInformation(const CManagerInformation&) = delete;
  CManagerInformation& operator=(const CManagerInformation&) = delete;

  /// Closes the connection to the master and deletes its socket.
  virtual ~CManagerInformation();

  std::string script;          ///< path of the distribution script
  bool run_as_root;            ///< check the Windows user and switch to the mapped account
  std::int32_t start_timeout;  ///< seconds that the simulator has to start listening
  std::int32_t comms_port;     ///< port of this run's simulator
  bool comms_log;              ///< write a comms log in the data directory
  flog* log;                   ///< the daemon log, not owned
  Socket* master;              ///< the accepted connection, owned
};
