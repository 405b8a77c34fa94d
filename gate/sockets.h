#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "gate/tls_socket.h"

namespace gate {

using Tcp = boost::asio::ip::tcp;

/// A connection between two gates. `tls` reads and writes `socket`, and is destroyed first.
struct Wire {
  explicit Wire(Tcp::socket connected) : socket(std::move(connected)) {}

  Tcp::socket socket;
  std::unique_ptr<TlsSocket> tls;
};

/// Prepares a connection that was just made: no call on it waits, and small pieces leave at once. A
/// piece of a conversation that waits for the acknowledgement of the piece before it costs 40 ms.
void Prepare(Tcp::socket& socket);

/// Acknowledges at once what has just been read. The daemon writes a record for itself, and its
/// system holds what does not fill a packet until the record before it is acknowledged: 40 ms when
/// nothing is sent in return.
void AcknowledgeNow(Tcp::socket& socket);

/// Ends a connection so that what was written still arrives: closes the sending side, and reads and
/// drops what the peer still sends until it closes, too, or a few seconds have passed. A connection
/// that is closed with bytes unread would be reset, and the reset overtakes the last words at the
/// peer.
void CloseGently(Tcp::socket socket);

/// The same, and TLS says goodbye before.
void CloseGently(std::unique_ptr<Wire> wire);

class Closing;

/// Ends connections gently, but no more than `most` at once: for one more the oldest is closed
/// where it stands. For peers that nobody knows, who could otherwise hold any number of descriptors
/// for those few seconds.
class FewClosings {
 public:
  explicit FewClosings(std::size_t most) : most_(most) {}
  void CloseGently(Tcp::socket socket);
  void CloseGently(std::unique_ptr<Wire> wire);

 private:
  std::size_t most_;
  std::deque<std::weak_ptr<Closing>> closings_;
};

/// A place, as people write it.
struct HostAndPort {
  std::string host;
  std::string port;
};

/// "192.0.2.7:5000", "[2001:db8::1]:5000".
std::string Text(const HostAndPort& place);
std::string Text(const Tcp::endpoint& endpoint);

/// The peer's address; unspecified when the connection has gone.
Tcp::endpoint PeerOf(const Tcp::socket& socket);

/// Reads "HOST:PORT" or "[ADDRESS]:PORT". Throws std::invalid_argument with a sentence.
HostAndPort ReadHostAndPort(const std::string& text);

/// The first address of that name. Blocks for the look-up. Throws std::runtime_error with a
/// sentence.
Tcp::endpoint Resolve(boost::asio::io_context& context, const HostAndPort& place);

class Listener {
 public:
  using Take = std::function<void(Tcp::socket)>;

  explicit Listener(boost::asio::io_context& context) : acceptor_(context), pause_(context) {}

  /// Listens at `place`, also where connections of an earlier gate still wait for their end. Calls
  /// `failed` when no connection could be taken, as when no descriptor is left, and tries again a
  /// moment later. Throws boost::system::system_error.
  void Listen(const Tcp::endpoint& place, Take take, std::function<void()> failed);
  void Close();
  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }

 private:
  void Accept();

  Tcp::acceptor acceptor_;
  boost::asio::steady_timer pause_;
  Take take_;
  std::function<void()> failed_;
};

}  // namespace gate
