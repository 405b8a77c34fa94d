#include "gate/own_gate.h"

#include <signal.h>

#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include "gate/connecting_gate.h"
#include "gate/journal.h"

namespace gate {
namespace {

constexpr std::chrono::seconds kLastBytes{3};
constexpr std::chrono::milliseconds kLastWords{500};

ConnectingGate::Options OptionsOf(const OwnGate::Options& given) {
  ConnectingGate::Options options;
  options.listen = {"127.0.0.1", "0"};
  options.to = ReadHostAndPort(given.to);
  options.server = given.server;
  options.tls = {given.certificate, given.key, given.authorities, given.revocations};
  options.connect = given.attempt;
  options.most = 1;
  return options;
}

// Blocks all signals, which are for the program's threads. SIGPIPE, too: a write of the gate to a
// peer that has gone must not end a program that wants the signal for its own output.
class SignalsBlocked {
 public:
#ifdef _WIN32
  SignalsBlocked() = default;
#else
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
#endif
};

}  // namespace

struct OwnGate::Running {
  explicit Running(const Options& options) : gate(context, OptionsOf(options), journal) {}

  void Run() {
    context.run();
    context.restart();
    context.run_for(kLastBytes);
    gate.Stop();
    context.restart();
    context.run_for(kLastWords);
  }

  Journal journal{Journal::kNowhere};
  boost::asio::io_context context{1};
  ConnectingGate gate;
  std::thread thread;
};

OwnGate::OwnGate(const Options& options) : running_(std::make_unique<Running>(options)) {
  [[maybe_unused]] const SignalsBlocked blocked;  // the new thread inherits the mask
  running_->thread = std::thread([this] { running_->Run(); });
}

OwnGate::~OwnGate() {
  boost::asio::post(running_->context, [this] {
    running_->gate.ListenNoMore();
    running_->context.stop();
  });
  running_->thread.join();
}

int OwnGate::port() const {
  return running_->gate.port();
}

}  // namespace gate
