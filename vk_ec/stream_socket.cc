#include "vk_ec/stream_socket.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace vk_ec {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using boost::system::system_error;

// The least time that an attempt gets. Loopback and local networks answer within it, so that even
// an attempt that begins when the time is just over can succeed.
constexpr std::chrono::milliseconds kShortestAttempt{100};

// Asio's open() has no way to ask for SOCK_CLOEXEC. Setting the flag afterwards is as good: it
// cannot fail for an open descriptor, and nothing in this process forks in between.
void close_on_exec(int descriptor) {
  fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

void throw_unless_interrupted(const error_code& error, const char* operation) {
  if (error && error != asio::error::interrupted) throw system_error(error, operation);
}

}  // namespace

struct StreamSocket::Impl {
  bool open();
  void close();
  void abort();
  bool connect(const tcp::endpoint& endpoint, Clock::time_point give_up);
  std::optional<error_code> start_connect(const tcp::endpoint& endpoint, Clock::time_point give_up);
  bool connected_to_itself() const;

  asio::io_context io{1};
  tcp::socket socket{io};
  tcp::resolver::results_type endpoints;

  // Bytes that were received beyond those asked for: mostly the length of the next chunk, or a
  // whole small message. Larger chunks are received straight into the caller's memory.
  std::array<unsigned char, 4096> ahead_bytes{};
  asio::const_buffer ahead;
};

bool StreamSocket::Impl::open() {
  close();
  ahead = {};  // these bytes came over an earlier connection
  error_code error;
  socket.open(tcp::v4(), error);
  if (error) return false;
  close_on_exec(socket.native_handle());
  return true;
}

void StreamSocket::Impl::close() {
  error_code ignored;
  socket.close(ignored);
}

// Closes without TCP's orderly end, which would keep the local port busy for a minute.
void StreamSocket::Impl::abort() {
  error_code ignored;
  socket.set_option(tcp::socket::linger(true, 0), ignored);
  close();
}

bool StreamSocket::Impl::connect(const tcp::endpoint& endpoint, Clock::time_point give_up) {
  if (!open()) return false;
  const auto outcome = start_connect(endpoint, give_up);
  if (!outcome || *outcome || connected_to_itself()) {
    abort();
    return false;
  }
  // The timed connect has made the descriptor non-blocking. Left so, each read would need a poll().
  error_code error;
  socket.native_non_blocking(false, error);
  return !error;
}

// The result of the attempt, or nothing if it was still pending at `give_up`.
std::optional<error_code> StreamSocket::Impl::start_connect(const tcp::endpoint& endpoint,
                                                            Clock::time_point give_up) {
  std::optional<error_code> outcome;
  socket.async_connect(endpoint, [&outcome](const error_code& error) { outcome = error; });
  io.restart();
  io.run_until(give_up);
  io.poll();  // Where this process got its turn late, the outcome may be there all the same.
  if (outcome) return outcome;
  abort();
  io.run();  // The handler refers to this frame, so it has to run before the frame ends.
  return std::nullopt;
}

// Where nobody listens on a port of the ephemeral range, the system may give that very port to
// the connecting socket, which then reaches itself and would wait for its own answer.
bool StreamSocket::Impl::connected_to_itself() const {
  error_code local_error;
  error_code remote_error;
  const auto local = socket.local_endpoint(local_error);
  const auto remote = socket.remote_endpoint(remote_error);
  return local_error || remote_error || local == remote;
}

StreamSocket::StreamSocket() : impl_(std::make_unique<Impl>()) {}

StreamSocket::StreamSocket(int connected_descriptor) : StreamSocket() {
  impl_->socket.assign(tcp::v4(), connected_descriptor);
  close_on_exec(connected_descriptor);
}

StreamSocket::~StreamSocket() = default;

void StreamSocket::resolve(const std::string& host, unsigned port) {
  // The system's look-up would cut the number to 16 bits, which are somebody else's port.
  if (port > std::numeric_limits<std::uint16_t>::max()) {
    throw system_error(asio::error::service_not_found, "resolve");
  }
  tcp::resolver resolver(impl_->io);
  impl_->endpoints =
      resolver.resolve(tcp::v4(), host, std::to_string(port), tcp::resolver::numeric_service);
}

bool StreamSocket::connect_before(Clock::time_point give_up) {
  auto untried = static_cast<Clock::rep>(impl_->endpoints.size());
  for (const auto& entry : impl_->endpoints) {
    const auto now = Clock::now();
    const auto share = std::max<Clock::duration>((give_up - now) / untried--, kShortestAttempt);
    if (impl_->connect(entry.endpoint(), now + share)) return true;
  }
  return false;
}

void StreamSocket::set_no_delay() {
  impl_->socket.set_option(tcp::no_delay(true));
}

void StreamSocket::set_keep_alive() {
  error_code ignored;
  impl_->socket.set_option(tcp::socket::keep_alive(true), ignored);
}

void StreamSocket::write(Piece head, Piece body) {
  std::array<asio::const_buffer, 2> rest{asio::const_buffer(head.bytes, head.length),
                                         asio::const_buffer(body.bytes, body.length)};
  while (asio::buffer_size(rest) > 0) {
    error_code error;
    const std::size_t sent = impl_->socket.send(rest, 0, error);
    throw_unless_interrupted(error, "write");
    const std::size_t of_head = std::min(sent, rest[0].size());
    rest[0] += of_head;
    rest[1] += sent - of_head;
  }
}

void StreamSocket::read(unsigned char* bytes, std::size_t length) {
  asio::mutable_buffer rest(bytes, length);
  rest += asio::buffer_copy(rest, impl_->ahead);
  impl_->ahead += length - rest.size();
  while (rest.size() > 0) {
    const std::array<asio::mutable_buffer, 2> room{rest, asio::buffer(impl_->ahead_bytes)};
    error_code error;
    const std::size_t received = impl_->socket.receive(room, 0, error);
    throw_unless_interrupted(error, "read");
    const std::size_t wanted = std::min(received, rest.size());
    impl_->ahead = asio::buffer(impl_->ahead_bytes, received - wanted);
    rest += wanted;
  }
}

}  // namespace vk_ec
