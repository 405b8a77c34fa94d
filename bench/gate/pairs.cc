#include "bench/gate/pairs.h"

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>

#include "tests/gate/breaking_relay.h"
#include "tests/support/ports.h"

namespace bench {
namespace {

constexpr const char* kStunnel = R"(foreground = yes
pid =
debug = 3
[link]
client = {}
accept = 127.0.0.1:{}
connect = 127.0.0.1:{}
sslVersion = TLSv1.3
cert = {}
key = {}
CAfile = {}
verifyChain = yes
sessionResume = {}
socket = l:TCP_NODELAY=1
socket = r:TCP_NODELAY=1
)";

constexpr const char* kHaproxy = R"(global
  maxconn 4000
  nbthread 1
defaults
  mode tcp
  timeout connect 5s
  timeout client 1h
  timeout server 1h
listen link
  bind 127.0.0.1:{}
  server next 127.0.0.1:{}
)";

class Gates : public Pair {
 public:
  explicit Gates(int target)
      : door_(target, {"--claim-wait=3600", "--links-of-one=1000"}),
        near_(door_.Connect(door_.alice(), {"--masters=1000", "--longest-pause=0.01"})) {}

  int port() const override { return near_->port(); }
  std::vector<pid_t> processes() const override {
    return {near_->pid(), const_cast<Door&>(door_).serving().pid()};
  }

 private:
  Door door_;
  std::unique_ptr<RunningGate> near_;
};

// A connection would tell as well, but the daemon would count it.
bool Listens(int port) {
  std::ifstream sockets("/proc/net/tcp");
  const std::string wanted = fmt::format("0100007F:{:04X} 00000000:0000 0A", port);
  for (std::string line; std::getline(sockets, line);) {
    if (line.find(wanted) != std::string::npos) return true;
  }
  return false;
}

// Two programs that are told by files.
class Configured : public Pair {
 public:
  int port() const override { return near_port_; }
  std::vector<pid_t> processes() const override { return {near_->pid(), far_->pid()}; }

 protected:
  std::unique_ptr<ChildProcess> Start(const std::string& name, const std::string& configuration,
                                      std::vector<std::string> command, int port) {
    command.push_back(directory_.Write(name, configuration));
    ChildProcess::Options options;
    options.output_file = directory_.File(name + ".log");
    auto process = std::make_unique<ChildProcess>(command, options);
    if (!Eventually([port] { return Listens(port); })) {
      throw std::runtime_error(command.front() + ": " + directory_.Read(name + ".log"));
    }
    return process;
  }

  TemporaryDirectory directory_;
  const int far_port_ = FreePort();
  const int near_port_ = FreePort();
  std::unique_ptr<ChildProcess> far_;
  std::unique_ptr<ChildProcess> near_;
};

class Stunnel : public Configured {
 public:
  Stunnel(const Certificates& with, int target, bool resumes) {
    const char* resume = resumes ? "yes" : "no";
    far_ = Start("far",
                 fmt::format(kStunnel, "no", far_port_, target, with.server.certificate,
                             with.server.key, with.authority.file(), resume),
                 {"/usr/bin/stunnel4"}, far_port_);
    near_ = Start("near",
                  fmt::format(kStunnel, "yes", near_port_, far_port_, with.alice.certificate,
                              with.alice.key, with.authority.file(), resume),
                  {"/usr/bin/stunnel4"}, near_port_);
  }
};

class Haproxy : public Configured {
 public:
  Haproxy(const Certificates& with, int target) {
    // It wants a certificate and its key in one file.
    const auto both = [&](const char* name, const Identity& identity) {
      return directory_.Write(
          name, with.directory.Read(std::filesystem::path(identity.certificate).filename()) +
                    with.directory.Read(std::filesystem::path(identity.key).filename()));
    };
    const std::string verify = " ca-file " + with.authority.file() + " verify required";
    const std::vector<std::string> command = {"/usr/sbin/haproxy", "-db", "-f"};
    far_ = Start("far",
                 fmt::format(kHaproxy,
                             fmt::format("{} ssl crt {}{} ssl-min-ver TLSv1.3 no-tls-tickets",
                                         far_port_, both("server.both", with.server), verify),
                             target),
                 command, far_port_);
    near_ = Start("near",
                  fmt::format(kHaproxy, near_port_,
                              fmt::format("{} ssl crt {}{} no-ssl-reuse", far_port_,
                                          both("alice.both", with.alice), verify)),
                  command, near_port_);
  }
};

class Relays : public Pair {
 public:
  explicit Relays(int target) {
    far_ = Start("far", target);
    near_ = Start("near", PortOf("far"));
  }

  int port() const override { return PortOf("near"); }
  std::vector<pid_t> processes() const override { return {near_->pid(), far_->pid()}; }

 private:
  std::unique_ptr<ChildProcess> Start(const std::string& name, int target) {
    ChildProcess::Options options;
    options.output_file = directory_.File(name);
    options.in_child = [target] {
      const BreakingRelay relay(target);
      printf("%d\n", relay.port());
      fflush(stdout);
      for (;;) pause();
      return 0;
    };
    auto process = std::make_unique<ChildProcess>(std::vector<std::string>{}, options);
    if (!Eventually([&] { return directory_.Read(name).ends_with('\n'); })) {
      throw std::runtime_error("a relay does not listen");
    }
    return process;
  }
  int PortOf(const std::string& name) const { return std::stoi(directory_.Read(name)); }

  TemporaryDirectory directory_;
  std::unique_ptr<ChildProcess> far_;
  std::unique_ptr<ChildProcess> near_;
};

}  // namespace

Certificates::Certificates()
    : authority(directory.path().string(), "authority"),
      server(authority.Issue("server", {.address = "127.0.0.1"})),
      alice(authority.Issue("alice", {.upn = "alice@example.com"})) {}

std::unique_ptr<Pair> MakeGates(int target) {
  return std::make_unique<Gates>(target);
}

std::unique_ptr<Pair> MakeStunnel(const Certificates& certificates, int target, bool resumes) {
  return std::make_unique<Stunnel>(certificates, target, resumes);
}

std::unique_ptr<Pair> MakeHaproxy(const Certificates& certificates, int target) {
  return std::make_unique<Haproxy>(certificates, target);
}

std::unique_ptr<Pair> MakeRelays(int target) {
  return std::make_unique<Relays>(target);
}

}  // namespace bench
