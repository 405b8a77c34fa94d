#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "gate/tls_context.h"
#include "gate/tls_socket.h"
#include "tests/gate/authority.h"
#include "tests/gate/echo_daemon.h"

/// The connecting end of TLS with a serving gate, in the test's hands: it says what the test wants
/// instead of what a gate would.
class RawGate {
 public:
  using Result = gate::TlsSocket::Result;

  /// Throws std::runtime_error when the handshake comes to nothing.
  RawGate(int port, const Identity& identity, const std::string& authority)
      : socket_(ConnectToLoopback(port)) {
    fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
    const int on = 1;
    setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    const gate::TlsFiles files{identity.certificate, identity.key, {authority}, {}};
    tls_ = std::make_unique<gate::TlsSocket>(
        static_cast<std::uintptr_t>(socket_.get()),
        gate::TlsContext::Load(files, gate::TlsContext::Role::kConnect), "127.0.0.1");
    Result result = tls_->Handshake();
    while (result != Result::kDone) {
      Wait(result);
      result = tls_->Handshake();
    }
  }

  void Say(std::string_view bytes) {
    std::size_t put = 0;
    for (Result result = tls_->Write(bytes, put); put < bytes.size();
         result = tls_->Write(bytes, put)) {
      if (result == Result::kDone) {
        bytes.remove_prefix(put);
        put = 0;
      } else {
        Wait(result);
      }
    }
  }

  /// The next `size` bytes, or fewer when the connection ends before.
  std::string Hear(std::size_t size) {
    std::string heard;
    while (heard.size() < size) {
      std::array<char, 4096> piece{};
      std::size_t got = 0;
      const Result result =
          tls_->Read(std::span(piece).first(std::min(piece.size(), size - heard.size())), got);
      if (result == Result::kBroken) break;
      if (result == Result::kDone) {
        heard.append(piece.data(), got);
      } else {
        Wait(result);
      }
    }
    return heard;
  }

  /// Says PING; whether the gate at the other end still answers on this connection.
  bool IsAnswered() {
    try {
      Say("\4");
      return Hear(1) == "\5";
    } catch (const std::runtime_error&) {
      return false;
    }
  }

 private:
  void Wait(Result wanted) {
    if (wanted == Result::kBroken) throw std::runtime_error(tls_->error());
    pollfd waiting{socket_.get(),
                   static_cast<short>(wanted == Result::kWantWrite ? POLLOUT : POLLIN), 0};
    if (poll(&waiting, 1, 10'000) != 1) throw std::runtime_error("the gate says nothing");
  }

  Descriptor socket_;
  std::unique_ptr<gate::TlsSocket> tls_;
};
