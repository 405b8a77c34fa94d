#pragma once

#include <sys/types.h>

namespace load {

/// The least that a server can do that starts a process for each connection: fork, send one byte,
/// wait for the end. How long its byte takes is the machine's share of the daemon's; on a busy
/// machine it is most of it.
class BareServer {
 public:
  BareServer();
  ~BareServer();
  BareServer(const BareServer&) = delete;
  BareServer& operator=(const BareServer&) = delete;

  int port() const { return port_; }

 private:
  int port_ = 0;
  pid_t pid_ = 0;
};

}  // namespace load
