#pragma once

#include <string>

class SocketServer;

// What the whole process knows: set once in the daemon before its first fork, inherited by every
// connection child.

extern SocketServer* Gps;               ///< the listening socket; null until it is there
extern char GszExePath[1024];           ///< directory of the executable, without a slash at the end
extern std::string GsLogFileDir;        ///< directory of the daemon log
extern const std::string GsZRMVersion;  ///< compatibility version of the master's product family

/// Version of the protocol between master and jobmill; the master is told the major number.
constexpr int kProtocolMajor = 3;
constexpr int kProtocolMinor = 0;
