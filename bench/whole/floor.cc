// The least that the kernel needs for a run: a daemon that forks for each master, starts the
// script, and a controller that moves the prepared bytes of a plan without looking at them.
//
//   bench_floor LISTEN_PORT SCRIPT SIMULATOR_PORT PLAN HANDSHAKE_BYTES
//
// It checks nothing but the results of its calls, and ends when one fails.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "bench/whole/plan.h"

namespace {

using bench::plan::Action;

struct Step {
  Action action;
  size_t size;
  const char* bytes;
};

constexpr size_t kMostSteps = 1 << 16;

char* plan_bytes = nullptr;
size_t plan_size = 0;
Step* steps = nullptr;
size_t step_count = 0;
size_t loop_start = 0;
char* buffer = nullptr;

void Check(bool good, const char* what) {
  if (good) return;
  perror(what);
  _exit(1);
}

int NumberIn(const char* text) {
  char* end = nullptr;
  const long number = strtol(text, &end, 10);
  if (end == text || *end != 0) _exit(2);
  return static_cast<int>(number);
}

void ReadPlan(const char* file) {
  const int descriptor = open(file, O_RDONLY | O_CLOEXEC);
  Check(descriptor >= 0, file);
  plan_size = static_cast<size_t>(lseek(descriptor, 0, SEEK_END));
  plan_bytes = static_cast<char*>(malloc(plan_size));
  Check(pread(descriptor, plan_bytes, plan_size, 0) == static_cast<ssize_t>(plan_size), file);
  close(descriptor);
  steps = static_cast<Step*>(malloc(kMostSteps * sizeof(Step)));
  size_t largest = 1;
  for (size_t at = 0; at < plan_size;) {
    const auto action = static_cast<Action>(plan_bytes[at]);
    uint64_t size = 0;
    memcpy(&size, plan_bytes + at + 1, sizeof(size));
    at += 1 + sizeof(size);
    if (action == bench::plan::kLoop) {
      loop_start = step_count;
      continue;
    }
    Check(step_count < kMostSteps, "plan too long");
    steps[step_count++] = {action, size, plan_bytes + at};
    if (bench::plan::Sends(action)) at += size;
    largest = std::max<size_t>(largest, size);
  }
  buffer = static_cast<char*>(malloc(largest));
}

void SendAll(int descriptor, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t now = send(descriptor, bytes, size, MSG_NOSIGNAL);
    if (now <= 0) _exit(1);
    bytes += now;
    size -= static_cast<size_t>(now);
  }
}

// Large answers come in pieces; one call for each that is there.
bool ReceiveAll(int descriptor, size_t size) {
  size_t had = 0;
  while (had < size) {
    const ssize_t now = recv(descriptor, buffer + had, size - had, 0);
    if (now <= 0) return false;
    had += static_cast<size_t>(now);
  }
  return true;
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

int Listen(int port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  Check(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
  Check(listen(listener, 500) == 0, "listen");
  return listener;
}

int Connect(int port) {
  const int link = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  Check(connect(link, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
        "connect");
  const int on = 1;
  setsockopt(link, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  return link;
}

// Starts the script and waits for its host line.
void Launch(const char* script, const char* port) {
  int ends[2];
  Check(pipe2(ends, O_CLOEXEC) == 0, "pipe");
  const pid_t child = fork();
  Check(child >= 0, "fork");
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    execl(script, script, "1", "/tmp/", "CASE", port, "0", static_cast<char*>(nullptr));
    _exit(1);
  }
  close(ends[1]);
  char line[256];
  size_t had = 0;
  while (had == 0 || line[had - 1] != '\n') {
    const ssize_t now = read(ends[0], line + had, sizeof(line) - had);
    Check(now > 0, "script");
    had += static_cast<size_t>(now);
  }
}

void Serve(int master, const char* script, const char* simulator_port, size_t handshake) {
  static const char version[] = {1, 0, 0, 0, '3'};
  static const char ready[] = {13,  0,   0,   0,   'O', 'K', '|', '1', '2',
                               '7', '.', '0', '.', '0', '.', '1', 0};
  SendAll(master, version, sizeof(version));
  if (!ReceiveAll(master, handshake)) return;
  Launch(script, simulator_port);
  SendAll(master, ready, sizeof(ready));
  int simulator = -1;
  for (size_t at = 0; at < step_count; at = at + 1 < step_count ? at + 1 : loop_start) {
    const Step& step = steps[at];
    switch (step.action) {
      case bench::plan::kFromMaster:
        if (!ReceiveAll(master, step.size)) return;
        if (simulator < 0) simulator = Connect(NumberIn(simulator_port));
        break;
      case bench::plan::kFromSimulator:
        if (!ReceiveAll(simulator, step.size)) return;
        break;
      case bench::plan::kToMaster:
        SendAll(master, step.bytes, step.size);
        break;
      default:
        SendAll(simulator, step.bytes, step.size);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  signal(SIGCHLD, SIG_IGN);
  const int listener = Listen(NumberIn(argv[1]));
  while (true) {
    const int master = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (master < 0) return 1;
    if (fork() == 0) {
      close(listener);
      // Read here, so that the daemon forks as small as it can be.
      ReadPlan(argv[4]);
      Serve(master, argv[2], argv[3], static_cast<size_t>(NumberIn(argv[5])));
      return 0;
    }
    close(master);
  }
}
