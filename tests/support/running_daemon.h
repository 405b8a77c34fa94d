#pragma once

#include <memory>
#include <string>
#include <vector>

#include "net/socket_client.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

/// A vkjobmill.exe that serves a free port of this machine, from a temporary directory that holds
/// the executable and its configuration files. It is stopped, and its log removed, at the end.
class RunningDaemon {
 public:
  struct Options {
    std::vector<std::string> arguments;  ///< besides "-p" and "-s"
    /// Text of the distribution script; empty: no "-s" is given.
    std::string script;
    std::string users;        ///< the user administration file; "-": none
    std::string environment;  ///< the environment file; "-": none
    std::vector<std::string> variables;
    std::function<int()> in_child;
    /// `in_child` gives it another standard output: its log's file is looked at instead.
    bool quiet = false;
  };

  explicit RunningDaemon(const Options& options);
  ~RunningDaemon();

  int port() const { return port_; }
  pid_t pid() const { return process_->pid(); }
  ChildProcess& process() { return *process_; }
  const TemporaryDirectory& directory() const { return directory_; }

  /// All that daemon, connection children and script processes have logged, from the daemon's
  /// standard output.
  std::string Logged() const { return directory_.Read("output"); }

  /// What they and the programs that they have started have written to standard error.
  std::string Errors() const { return directory_.Read("errors"); }

  /// Waits until the log holds `text`.
  bool WaitForLog(const std::string& text) const;

  /// The log's file: in /var/log where the daemon may write there, else in /tmp.
  std::string LogFile() const;

  /// The log's file as the daemon sees it, which may have mounts of its own.
  std::string TextOfLogFile() const;

  /// The name under which this process finds what the daemon calls `file`, while the daemon runs.
  std::string Inside(const std::string& file) const;

 private:
  // That of this port in each place that a daemon may choose.
  void RemoveLogFile() const;

  TemporaryDirectory directory_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

/// The daemon's executable, as built.
std::string DaemonExecutable();

/// Whether a daemon's log holds the last line of its start with its end: the daemon has been
/// listening for some time then, and whatever it logs from there on belongs to a connection.
bool HasStarted(const std::string& log);

/// A master that does what a test tells it.
class TestMaster {
 public:
  explicit TestMaster(int port);

  /// The handshake up to the debug flag, with `fields` in place of "0", "PATH", "CASE", "1",
  /// "20172", "alice" and "0" as far as given.
  void RequestRun(std::vector<std::string> fields);

  /// Sends one frame.
  void Send(const std::string& text) { link_.SendLine(text); }

  /// The next frame; empty when the connection has ended.
  std::string Receive();

  /// Whether the connection ended, without a byte before, within `seconds`.
  bool SeesEndWithin(double seconds) const;

  /// Cuts the connection.
  void Leave() { link_.Close(); }

  /// The connection's descriptor; it stays this object's.
  int descriptor() const { return link_.handle(); }

  /// Sends one request, with its fields in hex, and returns the body of the reply in hex.
  std::string Ask(const std::string& hex);

 private:
  struct Link : SocketClient {
    using SocketClient::SocketClient;
    int handle() const { return handle_; }
  };
  Link link_;
};
