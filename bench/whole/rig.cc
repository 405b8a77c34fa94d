#include "bench/whole/rig.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "bench/whole/peer.h"
#include "tests/support/ports.h"

namespace bench {
namespace {

std::string Beside(const char* program) {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / program).string();
}

int ConnectTo(int port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(descriptor);
    return -1;
  }
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  return descriptor;
}

}  // namespace

void UseOneCore() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return;
  // The last one: interrupts mostly go to the first.
  int core = CPU_SETSIZE - 1;
  while (core > 0 && !CPU_ISSET(core, &allowed)) --core;
  CPU_ZERO(&allowed);
  CPU_SET(core, &allowed);
  sched_setaffinity(0, sizeof(allowed), &allowed);
}

Master::Master(int port) : descriptor_(ConnectTo(port)) {
  if (descriptor_ < 0) throw std::runtime_error("nobody listens on the daemon's port");
}

Master::~Master() {
  Leave();
}

void Master::Leave() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

void Master::Launch(const std::string& path) {
  ReceiveFrame();
  Send(RunRequest(path));
  const std::string answer = ReceiveFrame();
  if (answer.compare(4, 3, "OK|") != 0) throw std::runtime_error("refused: " + answer.substr(4));
}

void Master::Send(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t now = send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (now <= 0) throw std::runtime_error("the daemon's side has gone");
    sent += static_cast<std::size_t>(now);
  }
}

std::string Master::ReceiveFrame() {
  std::string frame(4, '\0');
  Receive(frame.data(), 4);
  int size = 0;
  std::memcpy(&size, frame.data(), sizeof(size));
  frame.resize(4 + static_cast<std::size_t>(size));
  Receive(frame.data() + 4, static_cast<std::size_t>(size));
  return frame;
}

void Master::Skip(std::size_t size) {
  buffer_.resize(std::max(buffer_.size(), size));
  Receive(buffer_.data(), size);
}

void Master::AwaitEnd() {
  char byte = 0;
  if (recv(descriptor_, &byte, 1, 0) > 0) throw std::runtime_error("more than was expected");
}

void Master::Receive(char* target, std::size_t size) {
  std::size_t had = 0;
  while (had < size) {
    const ssize_t now = recv(descriptor_, target + had, size - had, 0);
    if (now <= 0) throw std::runtime_error("the daemon's side has gone");
    had += static_cast<std::size_t>(now);
  }
}

Daemon::Daemon(Kind kind, const Options& options) {
  std::filesystem::permissions(directory_.path(), std::filesystem::perms(0755));
  const std::string script = directory_.Write("script", "#!/bin/sh\necho HOST=127.0.0.1\n");
  chmod(script.c_str(), 0755);
  port_ = FreePort();
  std::vector<std::string> arguments;
  ChildProcess::Options process;
  process.output_file = directory_.File("output");
  process.directory = directory_.path().string();
  if (kind == Kind::kReal) {
    directory_.Write(".vk_corvane_env", "");
    const std::string executable = directory_.File("vkjobmill.exe");
    std::filesystem::copy_file(Beside("vkjobmill.exe"), executable);
    // The probe below is the first connection; the run gets the second port of the range.
    arguments = {executable, "-u",   "-p", std::to_string(port_),
                 "-s",       script, "-o", std::to_string(options.simulator_port - 1)};
    if (options.comms_log) arguments.emplace_back("-l");
    if (!options.preload.empty()) {
      process.environment = {"LD_PRELOAD=" + options.preload, "BENCH_COUNTERS=" + options.counters};
    }
  } else {
    const std::string plan = directory_.File("plan");
    WritePlan(plan, *options.set_up, *options.flow);
    arguments = {Beside("bench_floor"),
                 std::to_string(port_),
                 script,
                 std::to_string(options.simulator_port),
                 plan,
                 std::to_string(RunRequest(path()).size())};
  }
  process_ = std::make_unique<ChildProcess>(arguments, process);
  if (!Eventually([&] {
        const int probe = ConnectTo(port_);
        if (probe < 0) return false;
        close(probe);
        return true;
      })) {
    throw std::runtime_error("the daemon did not start: " + directory_.Read("output"));
  }
  // The probe's child has nothing to do with the measurement.
  Eventually([&] { return ChildrenOf(pid()).empty(); });
}

Daemon::~Daemon() {
  process_.reset();
  std::error_code ignored;
  for (const char* directory : {"/var/log", "/tmp"}) {
    std::filesystem::remove(std::string(directory) + "/VKJobmill_" + std::to_string(port_) + ".log",
                            ignored);
  }
}

pid_t Daemon::Child() const {
  pid_t child = 0;
  const bool found = Eventually([&] {
    const auto children = ChildrenOf(pid());
    if (children.size() != 1) return false;
    child = children.front();
    return true;
  });
  if (!found) throw std::runtime_error("the daemon has no single child");
  return child;
}

void Learn(Step& set_up, Flow& flow) {
  const Descriptor listener = BindFreePort(4);
  Daemon::Options options;
  options.simulator_port = PortOf(listener.get());
  const Daemon daemon(Daemon::Kind::kReal, options);
  std::thread peer([&] { Serve(listener.get(), set_up, flow); });
  try {
    Master master(daemon.port());
    master.Launch(daemon.path());
    master.Send(set_up.request);
    set_up.reply = master.ReceiveFrame();
    for (Step& step : flow.steps) {
      master.Send(step.request);
      step.reply = master.ReceiveFrame();
    }
  } catch (...) {
    shutdown(listener.get(), SHUT_RDWR);
    peer.join();
    throw;
  }
  peer.join();
}

}  // namespace bench
