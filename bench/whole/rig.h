#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/whole/conversation.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace bench {

/// Confines this process, and all that it starts, to one core: what the programs cost adds up
/// then, and nothing depends on where the system places them.
void UseOneCore();

/// The master's end of one connection. Every failure is a std::runtime_error.
class Master {
 public:
  explicit Master(int port);
  Master(const Master&) = delete;
  Master& operator=(const Master&) = delete;
  ~Master();

  /// The handshake, up to the host.
  void Launch(const std::string& path);

  void Send(const std::string& bytes);
  /// One frame, with its length.
  std::string ReceiveFrame();
  /// Exactly so many bytes, thrown away.
  void Skip(std::size_t size);

  /// Waits for the other side to end the connection.
  void AwaitEnd();
  void Leave();

 private:
  void Receive(char* target, std::size_t size);

  int descriptor_;
  std::string buffer_;
};

/// A daemon, the real one or the minimal one, with a script that prints a host at once.
class Daemon {
 public:
  enum class Kind { kReal, kFloor };

  struct Options {
    int simulator_port = 0;        ///< of the first connection after the start
    const Step* set_up = nullptr;  ///< kFloor only, as is `flow`
    const Flow* flow = nullptr;
    bool comms_log = false;
    std::string preload{};   ///< a library to load into it
    std::string counters{};  ///< where that library counts
  };

  Daemon(Kind kind, const Options& options);
  ~Daemon();

  int port() const { return port_; }
  /// A directory for its runs, which goes when it does.
  std::string path() const { return directory_.path().string() + "/"; }
  /// The comms log of its runs.
  std::string Log() const { return directory_.Read("CASE.crvnlog"); }
  pid_t pid() const { return process_->pid(); }
  /// Its only connection child.
  pid_t Child() const;

 private:
  TemporaryDirectory directory_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

/// The real controller once through the flow, with a peer that learns its queries: fills in all
/// that was not known.
void Learn(Step& set_up, Flow& flow);

}  // namespace bench
