#include "tests/faults/peers.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/ports.h"
#include "tests/support/wire_bytes.h"

namespace {

constexpr std::size_t kHeader = 16;
constexpr std::chrono::milliseconds kGlance{20};

Descriptor ListenAt(int port) {
  Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener.get(), 8) != 0) {
    listener.Reset();
  }
  return listener;
}

std::string Step(const std::string& position) {
  return wire::Framed(wire::Mess("STEP") + wire::Cstr("POSITION", {position}) +
                      wire::Doub("TIME", {0}) + wire::Inte("DATE", {2026, 1, 1, 0, 0, 0}) +
                      wire::Mess("END"));
}

std::string AnswerTo(const std::string& name) {
  const std::string end = wire::Mess("END");
  if (name == "SETUP") {
    return wire::Framed(wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + end) +
           Step("MODEL_DEFINITION");
  }
  if (name == "CONTINUE") return Step("BEGIN_NEWTON");
  if (name == "QUERY") {
    return wire::Framed(wire::Mess("REPLY") + wire::Cstr("QITEM", {"UNIT_SYSTEM"}) +
                        wire::Cstr("VALUES", {"TOLMEN_METRIC"}) + end) +
           wire::Framed(wire::Mess("READY") + end);
  }
  if (name == "SHUTDOWN") return wire::Framed(wire::Mess("FINISHED") + end);
  return {};
}

// The name of the first whole message in `pending`, which loses it; all of ours fit in one chunk.
std::string TakeName(std::string& pending) {
  const auto total = NumberAt<std::uint64_t>(pending);
  if (pending.size() <= kHeader) return {};
  if (pending.size() < kHeader + total) return {};
  const auto size = static_cast<unsigned char>(pending[kHeader]);
  std::string name = pending.substr(kHeader + 1, size);
  pending.erase(0, kHeader + total);
  return name;
}

Session Ended(Session::Result result, const std::string& text) {
  Session session;
  session.result = result;
  session.text = text;
  return session;
}

}  // namespace

Simulators::Simulators() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw std::runtime_error("pipe failed");
  wake_reader_ = Descriptor(ends[0]);
  wake_writer_ = Descriptor(ends[1]);
  do {
    listeners_[0] = BindFreePort(8);
    port_ = PortOf(listeners_[0].get());
    listeners_[1] = ListenAt(port_ + 1);
  } while (listeners_[1].get() < 0);
  thread_ = std::thread([this] { Run(); });
}

Simulators::~Simulators() {
  wake_writer_.Reset();
  thread_.join();
}

void Simulators::Run() {
  while (true) {
    std::vector<pollfd> waited = {{wake_reader_.get(), POLLIN, 0},
                                  {listeners_[0].get(), POLLIN, 0},
                                  {listeners_[1].get(), POLLIN, 0}};
    for (const auto& [client, pending] : clients_) waited.push_back({client, POLLIN, 0});
    if (poll(waited.data(), waited.size(), -1) < 0) continue;
    if (waited[0].revents != 0) break;
    for (std::size_t i = 1; i < waited.size(); ++i) {
      if (waited[i].revents == 0) continue;
      const int descriptor = waited[i].fd;
      if (i <= 2) {
        const int client = accept4(descriptor, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) clients_[client];
      } else if (!Serve(descriptor, clients_[descriptor])) {
        clients_.erase(descriptor);
        close(descriptor);
      }
    }
  }
  for (const auto& [client, pending] : clients_) close(client);
}

bool Simulators::Serve(int client, std::string& pending) {
  std::array<char, 4096> part{};
  const ssize_t got = recv(client, part.data(), part.size(), 0);
  if (got <= 0) return false;
  pending.append(part.data(), static_cast<std::size_t>(got));
  for (std::string name = TakeName(pending); !name.empty(); name = TakeName(pending)) {
    if (name == "CONTINUE" && leave_on_step_) return false;
    WriteAll(client, AnswerTo(name));
  }
  return true;
}

Session Master::Hold(int port, const Plan& plan) {
  Session session;
  try {
    Converse(port, plan);
  } catch (const Session& ended) {
    session = ended;
  }
  session.admitted = admitted_;
  if (session.result == Session::Result::kWaiting) {
    const linger at_once{1, 0};
    setsockopt(link_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  }
  link_.Reset();
  return session;
}

void Master::Converse(int port, const Plan& plan) {
  using Result = Session::Result;
  Connect(port);
  const std::string version = Receive("version");
  if (version != "3") throw Ended(Result::kWrong, "version " + Hex(version));
  Send(plan.version);
  for (const std::string& line : {plan.cluster, plan.path, plan.root, std::string("1"),
                                  std::string("20172"), plan.user, std::string("0")}) {
    Send(line);
  }
  const std::string host = Receive("host");
  admitted_ = host.starts_with("OK");
  if (!host.starts_with("OK|")) throw Ended(Result::kRefused, host);
  if (host != std::string("OK|127.0.0.1\0", 13)) {
    throw Ended(Result::kWrong, "host " + Hex(host));
  }
  Ask(1, "01 00 00 00 00 00 00 00", "connect");
  if (plan.leave_after_connecting) return;
  Ask(7, "07 00 00 00 00 00 00 00", "step");
  Ask(3, "03 00 00 00 01 00 00 00 00 00 00 00", "query");
  Ask(65520, "f0 ff 00 00 00 00 00 00", "shutdown");
  ExpectEnd();
}

void Master::Connect(int port) {
  link_ = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(link_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw Ended(Session::Result::kClosed, "no connection");
  }
}

void Master::Send(const std::string& body) const {
  WriteAll(link_.get(), Frame(body));  // a daemon that has closed is noticed at the next answer
}

std::string Master::ReceiveBytes(std::size_t size, const char* what) {
  const auto start = Clock::now();
  std::string bytes;
  while (bytes.size() < size) {
    pollfd readable{link_.get(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(kGlance.count())) == 0) {
      if (is_enough_(Clock::now() - start)) throw Ended(Session::Result::kWaiting, what);
      continue;
    }
    std::string part(size - bytes.size(), '\0');
    const ssize_t got = recv(link_.get(), part.data(), part.size(), 0);
    if (got <= 0) throw Ended(Session::Result::kClosed, what);
    bytes.append(part, 0, static_cast<std::size_t>(got));
  }
  return bytes;
}

std::string Master::Receive(const char* what) {
  const auto size = NumberAt<std::uint32_t>(ReceiveBytes(4, what));
  if (size > 4096) throw Ended(Session::Result::kWrong, std::string(what) + " of some length");
  return ReceiveBytes(size, what);
}

void Master::Ask(unsigned code, const std::string& reply, const char* what) {
  Send(Image(code));
  const std::string came = Receive(what);
  if (came != Bytes(reply)) {
    throw Ended(Session::Result::kWrong, std::string(what) + " answered with " + Hex(came));
  }
}

void Master::ExpectEnd() {
  try {
    ReceiveBytes(1, "end");
  } catch (const Session& ended) {
    if (ended.result == Session::Result::kClosed) return;
    throw;
  }
  throw Ended(Session::Result::kWrong, "more than the answers");
}
