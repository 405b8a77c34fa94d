#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/gate/door.h"

namespace bench {

/// Two programs between a master and a port of this machine, one at each end of the network.
class Pair {
 public:
  virtual ~Pair() = default;

  /// Where the master connects.
  virtual int port() const = 0;
  /// Both processes.
  virtual std::vector<pid_t> processes() const = 0;
};

/// The certificates of all pairs.
struct Certificates {
  Certificates();

  TemporaryDirectory directory;
  Authority authority;
  Identity server;
  Identity alice;
};

std::unique_ptr<Pair> MakeGates(int target);
/// stunnel, TLS 1.3 with certificates at both ends as the gates have it. It resumes TLS sessions,
/// which the gates do not, only when told.
std::unique_ptr<Pair> MakeStunnel(const Certificates& certificates, int target, bool resumes);
std::unique_ptr<Pair> MakeHaproxy(const Certificates& certificates, int target);
/// Bytes are passed on and that is all.
std::unique_ptr<Pair> MakeRelays(int target);

}  // namespace bench
