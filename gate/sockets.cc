#include "gate/sockets.h"

#ifdef __linux__
#include <netinet/tcp.h>
#endif

#include <array>
#include <chrono>
#include <stdexcept>

#include <boost/asio/buffer.hpp>
#include <boost/asio/steady_timer.hpp>

namespace gate {
namespace {

using boost::system::error_code;

constexpr std::chrono::seconds kLastWords{5};
constexpr std::chrono::milliseconds kNoDescriptors{200};
constexpr std::size_t kMostDropped = std::size_t{16} << 20;

}  // namespace

// Keeps itself alive until the peer has closed, or has taken too long or sent too much.
class Closing : public std::enable_shared_from_this<Closing> {
 public:
  explicit Closing(Tcp::socket socket)
      : socket_(std::move(socket)), timer_(socket_.get_executor()) {}

  static std::shared_ptr<Closing> Begin(Tcp::socket socket) {
    auto closing = std::make_shared<Closing>(std::move(socket));
    closing->Begin();
    return closing;
  }

  void Close() {
    error_code ignored;
    socket_.close(ignored);
    timer_.cancel(ignored);
  }

 private:
  void Begin() {
    error_code ignored;
    socket_.shutdown(Tcp::socket::shutdown_send, ignored);
    timer_.expires_after(kLastWords);
    timer_.async_wait([self = shared_from_this()](error_code error) {
      if (!error) self->Close();
    });
    Drop();
  }

  void Drop() {
    socket_.async_wait(Tcp::socket::wait_read, [self = shared_from_this()](error_code error) {
      std::array<char, 16384> bytes{};
      const std::size_t size =
          error ? 0 : self->socket_.read_some(boost::asio::buffer(bytes), error);
      self->dropped_ += size;
      const bool again = !error || error == boost::asio::error::would_block;
      if (again && self->dropped_ < kMostDropped) {
        self->Drop();
      } else {
        self->Close();
      }
    });
  }

  Tcp::socket socket_;
  boost::asio::steady_timer timer_;
  std::size_t dropped_ = 0;
};

void Prepare(Tcp::socket& socket) {
  error_code ignored;
  socket.non_blocking(true, ignored);
  socket.set_option(Tcp::no_delay(true), ignored);
}

void AcknowledgeNow([[maybe_unused]] Tcp::socket& socket) {
#ifdef __linux__
  error_code ignored;
  using Quick = boost::asio::detail::socket_option::boolean<IPPROTO_TCP, TCP_QUICKACK>;
  socket.set_option(Quick(true), ignored);
#endif
}

namespace {

Tcp::socket SocketOf(std::unique_ptr<Wire> wire) {
  if (wire->tls) wire->tls->SayGoodbye();
  wire->tls.reset();
  return std::move(wire->socket);
}

}  // namespace

void CloseGently(Tcp::socket socket) {
  Closing::Begin(std::move(socket));
}

void CloseGently(std::unique_ptr<Wire> wire) {
  if (wire != nullptr) CloseGently(SocketOf(std::move(wire)));
}

void FewClosings::CloseGently(Tcp::socket socket) {
  closings_.push_back(Closing::Begin(std::move(socket)));
  if (closings_.size() <= most_) return;
  if (const auto oldest = closings_.front().lock()) oldest->Close();
  closings_.pop_front();
}

void FewClosings::CloseGently(std::unique_ptr<Wire> wire) {
  CloseGently(SocketOf(std::move(wire)));
}

std::string Text(const HostAndPort& place) {
  const bool v6 = place.host.find(':') != std::string::npos;
  return (v6 ? "[" + place.host + "]" : place.host) + ":" + place.port;
}

std::string Text(const Tcp::endpoint& endpoint) {
  return Text(HostAndPort{endpoint.address().to_string(), std::to_string(endpoint.port())});
}

Tcp::endpoint PeerOf(const Tcp::socket& socket) {
  error_code gone;
  return socket.remote_endpoint(gone);
}

HostAndPort ReadHostAndPort(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  HostAndPort read;
  if (colon != std::string::npos) read = {text.substr(0, colon), text.substr(colon + 1)};
  if (read.host.size() > 2 && read.host.front() == '[' && read.host.back() == ']') {
    read.host = read.host.substr(1, read.host.size() - 2);
  } else if (read.host.find(':') != std::string::npos) {
    read.host.clear();  // an IPv6 address without brackets could end anywhere
  }
  const bool number = !read.port.empty() && read.port.size() <= 5 &&
                      read.port.find_first_not_of("0123456789") == std::string::npos &&
                      std::stoi(read.port) <= 65535;
  if (read.host.empty() || !number) {
    throw std::invalid_argument("'" + text + "' is no HOST:PORT");
  }
  return read;
}

Tcp::endpoint Resolve(boost::asio::io_context& context, const HostAndPort& place) {
  error_code error;
  const auto found = Tcp::resolver(context).resolve(place.host, place.port, error);
  if (error) throw std::runtime_error(Text(place) + ": " + error.message());
  return found.begin()->endpoint();
}

void Listener::Listen(const Tcp::endpoint& place, Take take, std::function<void()> failed) {
  take_ = std::move(take);
  failed_ = std::move(failed);
  acceptor_.open(place.protocol());
#ifndef _WIN32
  acceptor_.set_option(Tcp::acceptor::reuse_address(true));
#endif
  acceptor_.bind(place);
  acceptor_.listen();
  acceptor_.non_blocking(true);
  Accept();
}

void Listener::Accept() {
  acceptor_.async_accept([this](error_code error, Tcp::socket socket) {
    if (!acceptor_.is_open()) return;
    if (!error) {
      take_(std::move(socket));
      return Accept();
    }
    // Connections that wait in the queue of the port wait on.
    failed_();
    pause_.expires_after(kNoDescriptors);
    pause_.async_wait([this](error_code cancelled) {
      if (!cancelled) Accept();
    });
  });
}

void Listener::Close() {
  error_code ignored;
  acceptor_.close(ignored);
  pause_.cancel(ignored);
}

}  // namespace gate
