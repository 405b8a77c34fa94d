#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

/// A `jobmillctl serve` on loopback.
class StatusServer {
 public:
  /// `port` 0: a free one.
  explicit StatusServer(const std::string& snapshot, int port = 0) {
    ChildProcess::Options options;
    options.output_file = directory_.File("said");
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{ProgramDirectory() + "/jobmillctl", "serve", "--snapshot",
                                 snapshot, "--listen", "127.0.0.1:" + std::to_string(port)},
        options);
    if (!Eventually([&] { return directory_.Read("said").ends_with("/\n"); })) {
      throw std::runtime_error("no server: " + directory_.Read("said"));
    }
    const std::string said = directory_.Read("said");
    port_ = std::stoi(said.substr(said.rfind(':') + 1));
  }

  int port() const { return port_; }
  pid_t pid() const { return process_->pid(); }
  std::string Address() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  TemporaryDirectory directory_;
  std::unique_ptr<ChildProcess> process_;
  int port_ = 0;
};
