#include "tests/support/scripted_simulator.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"

namespace {

void Require(bool succeeded, const char* what) {
  if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

ScriptedSimulator::ScriptedSimulator(Link link) {
  if (link == Link::kLoopback) {
    Listen();
  } else {
    SocketPair pair;
    connection_ = pair.peer.Release();
    client_ = pair.ours.Release();
  }
  thread_ = std::thread([this] { Run(); });
}

ScriptedSimulator::~ScriptedSimulator() {
  {
    const std::scoped_lock lock(mutex_);
    leaving_ = true;
    // Only these wake the thread: close() of a descriptor that another thread waits on does not.
    if (listener_ >= 0) shutdown(listener_, SHUT_RDWR);
    if (connection_ >= 0) shutdown(connection_, SHUT_RDWR);
  }
  if (thread_.joinable()) thread_.join();
  for (const int descriptor : {listener_, connection_, client_})
    if (descriptor >= 0) close(descriptor);
}

int ScriptedSimulator::TakeClientDescriptor() {
  return std::exchange(client_, -1);
}

void ScriptedSimulator::AnswerNext(const std::vector<std::string>& messages) {
  Answer answer;
  for (const std::string& message : messages) answer.bytes += wire::Framed(message);
  const std::scoped_lock lock(mutex_);
  answers_.push_back(std::move(answer));
}

void ScriptedSimulator::AnswerNextAndHangUp(const std::string& bytes) {
  const std::scoped_lock lock(mutex_);
  answers_.push_back({bytes, true});
}

std::vector<std::string> ScriptedSimulator::Requests() const {
  const std::scoped_lock lock(mutex_);
  return requests_;
}

void ScriptedSimulator::WaitForClientToLeave(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  if (!ending_.wait_for(lock, patience, [this] { return ended_; }))
    throw std::runtime_error("The client has not left the scripted simulator in time.");
}

void ScriptedSimulator::Listen() {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Require(listener_ >= 0, "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  Require(bind(listener_, generic, size) == 0, "bind");
  Require(listen(listener_, 1) == 0, "listen");
  Require(getsockname(listener_, generic, &size) == 0, "getsockname");
  port_ = ntohs(address.sin_port);
}

void ScriptedSimulator::Run() {
  if (listener_ >= 0) {
    const int accepted = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const std::scoped_lock lock(mutex_);
    connection_ = accepted;
    if (leaving_) return;  // the destructor has not seen this connection to end it
  }
  if (connection_ >= 0) Serve();
  const std::scoped_lock lock(mutex_);
  ended_ = true;
  ending_.notify_all();
}

void ScriptedSimulator::Serve() {
  std::string request;
  while (ReadRequest(request)) {
    const Answer answer = TakeAnswer(std::move(request));
    // A client that has gone takes no answer; what it sent is kept.
    if (!WriteAll(connection_, answer.bytes)) return;
    if (answer.hang_up) break;
  }
  shutdown(connection_, SHUT_RDWR);
}

bool ScriptedSimulator::ReadRequest(std::string& message) const {
  constexpr int kForEver = -1;  // the destructor ends the connection
  message.clear();
  const std::string head = ReadExactly(connection_, 8, kForEver);
  if (head.size() != 8) return false;
  const auto total = NumberAt<std::uint64_t>(head);
  do {
    const std::string length = ReadExactly(connection_, 8, kForEver);
    const auto chunk = NumberAt<std::uint64_t>(length);
    if (length.size() != 8 || chunk > total - message.size()) return false;
    const std::string part = ReadExactly(connection_, chunk, kForEver);
    if (part.size() != chunk) return false;
    message += part;
  } while (message.size() < total);
  return true;
}

ScriptedSimulator::Answer ScriptedSimulator::TakeAnswer(std::string request) {
  const std::scoped_lock lock(mutex_);
  requests_.push_back(std::move(request));
  if (answers_.empty()) return {"", true};
  Answer answer = std::move(answers_.front());
  answers_.pop_front();
  return answer;
}
