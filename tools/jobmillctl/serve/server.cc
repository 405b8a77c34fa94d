#include "tools/jobmillctl/serve/server.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <fmt/format.h>

#include "inspect/file.h"
#include "tools/jobmillctl/command.h"

namespace jobmillctl::serve {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

constexpr int kMostPeers = 64;
constexpr std::uint32_t kLongestHeader = 8192;
// From one request to the end of the next one's header, and for an answer to be taken.
constexpr std::chrono::seconds kPatience{30};
constexpr std::chrono::seconds kBetweenLooks{1};

// A connection. It lives as long as something is waited for on it.
class Peer : public std::enable_shared_from_this<Peer> {
 public:
  Peer(tcp::socket socket, const Board& board, int& peers)
      : stream_(std::move(socket)), board_(board), peers_(peers) {
    ++peers_;
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { --peers_; }

  void Receive() {
    parser_.emplace();
    parser_->header_limit(kLongestHeader);
    parser_->body_limit(0);
    stream_.expires_after(kPatience);
    http::async_read(stream_, buffer_, *parser_,
                     [self = shared_from_this()](error_code error, std::size_t) {
                       if (!error) self->Send();
                     });
  }

 private:
  void Send() {
    const http::request<http::empty_body>& request = parser_->get();
    const Reply reply =
        board_.Answer({std::string(request.method_string()), std::string(request.target()),
                       std::string(request[http::field::host])});
    response_ = {};
    response_.version(request.version());
    response_.keep_alive(request.keep_alive());
    response_.result(reply.status);
    response_.set(http::field::content_type, reply.type);
    if (reply.status == 405) response_.set(http::field::allow, "GET, HEAD");
    for (const auto& [name, value] : kHeaders) response_.set(name, value);
    response_.content_length(reply.body.size());
    if (request.method() != http::verb::head) response_.body() = reply.body;
    stream_.expires_after(kPatience);
    http::async_write(stream_, response_,
                      [self = shared_from_this()](error_code error, std::size_t) {
                        if (!error && self->response_.keep_alive()) self->Receive();
                      });
  }

  beast::tcp_stream stream_;
  beast::flat_buffer buffer_{kLongestHeader};
  std::optional<http::request_parser<http::empty_body>> parser_;
  http::response<http::string_body> response_;
  const Board& board_;
  int& peers_;
};

class Server {
 public:
  Server(Board& board, const Address& address)
      : board_(board), acceptor_(context_), looks_(context_), signals_(context_, SIGTERM, SIGINT) {
    try {
      const tcp::endpoint endpoint(asio::ip::make_address(address.host),
                                   static_cast<unsigned short>(address.port));
      acceptor_.open(endpoint.protocol());
      acceptor_.set_option(tcp::acceptor::reuse_address(true));
      acceptor_.bind(endpoint);
      acceptor_.listen();
    } catch (const boost::system::system_error& error) {
      throw Failed(fmt::format("Cannot listen on {}, port {}: {}", address.host, address.port,
                               error.code().message()));
    }
  }

  int port() const { return acceptor_.local_endpoint().port(); }

  void Run() {
    signals_.async_wait([this](error_code, int) { context_.stop(); });
    Look();
    Accept();
    context_.run();
  }

 private:
  void Look() {
    board_.Refresh();
    looks_.expires_after(kBetweenLooks);
    looks_.async_wait([this](error_code) { Look(); });
  }

  void Accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
      if (!error && peers_ < kMostPeers) {
        std::make_shared<Peer>(std::move(socket), board_, peers_)->Receive();
      }
      Accept();
    });
  }

  Board& board_;
  int peers_ = 0;
  asio::io_context context_{1};
  tcp::acceptor acceptor_;
  asio::steady_timer looks_;
  asio::signal_set signals_;
};

}  // namespace

Address ReadAddress(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
  std::string host = text.substr(0, std::min(colon, text.size()));
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  error_code error;
  asio::ip::make_address(host, error);
  const bool is_number = !port.empty() && port.size() <= 5 &&
                         port.find_first_not_of("0123456789") == std::string::npos;
  if (error || !is_number || std::stoi(port) > 65535) {
    throw Failed("'" + inspect::Printable(text) +
                 "' is no address and port, such as 127.0.0.1:9480");
  }
  return {host, std::stoi(port)};
}

void Serve(Board& board, const Address& address, void (*announce)(const Address& address)) {
  Server server(board, address);
  announce({address.host, server.port()});
  server.Run();
}

}  // namespace jobmillctl::serve
