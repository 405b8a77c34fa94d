#include "master/frame_channel.h"

#include <string.h>

#include <algorithm>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#ifdef _WIN32
#include <mstcpip.h>

#include <boost/asio/windows/object_handle.hpp>
#else
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#endif

#include "master/errors.h"

// Missing in the headers of mingw-w64.
#if defined(_WIN32) && !defined(SIO_TCP_SET_ACK_FREQUENCY)
#define SIO_TCP_SET_ACK_FREQUENCY _WSAIOW(IOC_VENDOR, 23)
#endif

namespace master {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;

constexpr std::size_t kLengthBytes = 4;
// Frames are read in pieces: memory grows with the bytes that have come, not with those announced.
constexpr std::size_t kPiece = 65536;
constexpr milliseconds kSendLimit{30000};

// Windows has texts in the language of the machine, and others than those that hints are found by.
std::string ErrorText(const error_code& error) {
#ifdef _WIN32
  if (error == asio::error::connection_refused) return "Connection refused";
  if (error == asio::error::connection_reset) return "Connection reset by peer";
  if (error == asio::error::connection_aborted) return "Connection aborted";
  if (error == asio::error::timed_out) return "Connection timed out";
  if (error == asio::error::host_unreachable) return "No route to host";
  if (error == asio::error::network_unreachable) return "Network is unreachable";
  if (error == asio::error::host_not_found) return "Host not found";
#endif
  return error.message();
}

Deadline Sooner(const Deadline& one, const Deadline& other) {
  if (!one) return other;
  if (!other) return one;
  return std::min(*one, *other);
}

// A Wake, watched. Its handle is a copy, because Asio closes what it has.
class Watch {
 public:
  Watch(asio::io_context& context, Wake wake) : handle_(context, Copy(wake)) {}

  // Starts a wait in the background unless there is one. `self` is this object: the wait keeps it
  // until End(), whose effect comes when the context runs again.
  void Begin(const std::shared_ptr<Watch>& self) {
    if (waiting_) return;
    waiting_ = true;
    const auto done = [self](const error_code&) { self->waiting_ = false; };
#ifdef _WIN32
    handle_.async_wait(done);
#else
    handle_.async_wait(asio::posix::descriptor_base::wait_read, done);
#endif
  }

  // Gives the wait up.
  void End() {
    error_code ignored;
    handle_.close(ignored);
  }

  // Whether it is raised now. The end of a wait may be an old one: by then somebody has put it
  // down.
  bool Raised() {
    if (waiting_) return false;
#ifdef _WIN32
    return WaitForSingleObject(handle_.native_handle(), 0) == WAIT_OBJECT_0;
#else
    pollfd now{handle_.native_handle(), POLLIN, 0};
    return poll(&now, 1, 0) > 0;
#endif
  }

 private:
#ifdef _WIN32
  static HANDLE Copy(Wake wake) {
    HANDLE copy = nullptr;
    const HANDLE self = GetCurrentProcess();
    DuplicateHandle(self, wake, self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    return copy;
  }

  asio::windows::object_handle handle_;
#else
  static int Copy(Wake wake) {
    return fcntl(wake, F_DUPFD_CLOEXEC, 0);
  }

  asio::posix::stream_descriptor handle_;
#endif
  bool waiting_ = false;
};

}  // namespace

/// The connection and all waiting. What is under way, in either direction and on the wake, goes on
/// in the background and survives the call that began it: a wait that is given up loses no bytes.
class FrameChannel::Link {
 public:
  using Socket = asio::generic::stream_protocol::socket;

  Socket& socket() { return socket_; }

  void Open();
  error_code Connect(const tcp::endpoint& to, const Deadline& deadline);
  void WakeOn(Wake wake);
  void OnWait(milliseconds interval, std::function<void()> tick);
  void LimitSending(milliseconds limit) { send_limit_ = limit; }
  void Send(std::string_view body);
  void SendAhead(std::string_view body);
  std::optional<std::string> Receive(const Deadline& deadline);

 private:
  bool RunOne(const Deadline& deadline);
  void Wait(const Deadline& deadline, const char* interrupted);
  void BeginSending();
  void Sent(const error_code& error, std::size_t size);
  void BeginReceiving();
  void Received(const error_code& error, std::size_t size);
  std::optional<std::string> TakeFrame();

  // What is under way writes to `piece_` and reads `leaving_` until the context has ended. So both
  // stand before the context, and are destroyed after it.
  std::unique_ptr<char[]> piece_ = std::make_unique_for_overwrite<char[]>(kPiece);
  std::string leaving_;  // being sent

  asio::io_context context_{1};
  Socket socket_{context_};
  std::shared_ptr<Watch> watch_;

  std::string unsent_;  // frames after `leaving_`
  bool sending_ = false;
  bool ahead_ = false;   // the frames that leave are for answers that come later
  error_code not_sent_;  // why the connection takes nothing
  Clock::time_point last_sent_;
  milliseconds send_limit_ = kSendLimit;

  std::string arrived_;    // frames, the last perhaps in part
  std::size_t taken_ = 0;  // bytes of them that Receive() has given away
  bool receiving_ = false;
  error_code end_;  // how the receiving direction has ended

  bool connecting_ = false;
  error_code connected_;

  milliseconds interval_{0};
  std::function<void()> tick_;
};

void FrameChannel::Link::Open() {
  error_code error;
  if (socket_.is_open()) socket_.close(error);
  socket_.open(asio::generic::stream_protocol(tcp::v4()), error);
  if (error) throw ConnectError("No socket: " + ErrorText(error));
#ifndef _WIN32
  fcntl(socket_.native_handle(), F_SETFD, FD_CLOEXEC);
#endif
}

error_code FrameChannel::Link::Connect(const tcp::endpoint& to, const Deadline& deadline) {
  connecting_ = true;
  socket_.async_connect(to, [this](const error_code& error) {
    connecting_ = false;
    connected_ = error;
  });
  try {
    while (connecting_) Wait(deadline, "Interrupted while connecting to the daemon");
    return connected_;
  } catch (const TimedOut&) {
    error_code ignored;
    socket_.close(ignored);
    while (connecting_) RunOne({});
    return asio::error::timed_out;
  }
}

void FrameChannel::Link::WakeOn(Wake wake) {
  if (watch_) watch_->End();
  watch_ = wake == kNoWake ? nullptr : std::make_shared<Watch>(context_, wake);
}

void FrameChannel::Link::OnWait(milliseconds interval, std::function<void()> tick) {
  interval_ = interval;
  tick_ = std::move(tick);
}

void FrameChannel::Link::Send(std::string_view body) {
  SendAhead(body);
  last_sent_ = Clock::now();
  ahead_ = false;
  BeginSending();
  while (sending_) {
    const auto limit = last_sent_ + send_limit_;
    if (!RunOne(limit) && Clock::now() >= limit) throw LinkLost("The daemon takes no more data");
  }
  if (const error_code error = std::exchange(not_sent_, {})) {
    throw LinkLost("The connection to the daemon broke: " + ErrorText(error));
  }
}

void FrameChannel::Link::SendAhead(std::string_view body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  unsent_.append(reinterpret_cast<const char*>(&length), sizeof(length));
  unsent_ += body;
  ahead_ = true;
}

std::optional<std::string> FrameChannel::Link::Receive(const Deadline& deadline) {
  BeginSending();
  while (true) {
    if (auto body = TakeFrame()) return body;
    if (end_ == asio::error::eof) {
      if (taken_ == arrived_.size()) return std::nullopt;
      throw LinkLost("The daemon closed the connection in the middle of an answer");
    }
    if (end_) {
      const std::string text = "The connection to the daemon broke: " + ErrorText(end_);
      if (end_ == asio::error::connection_reset) throw LinkReset(text);
      throw LinkLost(text);
    }
    BeginReceiving();
    Wait(deadline, "Interrupted while waiting for the daemon");
  }
}

// Runs until something has come to its end, or the deadline has passed, which is false.
bool FrameChannel::Link::RunOne(const Deadline& deadline) {
  context_.restart();
  if (!deadline) return context_.run_one() > 0;
  // With a deadline that has passed, what is there already counts all the same.
  return context_.run_one_until(*deadline) > 0 || context_.poll_one() > 0;
}

void FrameChannel::Link::Wait(const Deadline& deadline, const char* interrupted) {
  if (watch_) watch_->Begin(watch_);
  const Deadline tick = tick_ ? Deadline(Clock::now() + interval_) : Deadline();
  const bool ran = RunOne(Sooner(deadline, tick));
  if (watch_ && watch_->Raised()) throw Interrupted(interrupted);
  if (ran) return;
  if (deadline && Clock::now() >= *deadline) throw TimedOut("The daemon did not answer in time");
  if (tick_) tick_();
}

void FrameChannel::Link::BeginSending() {
  if (sending_ || unsent_.empty()) return;
  sending_ = true;
  leaving_ = std::exchange(unsent_, {});
  socket_.async_send(asio::buffer(leaving_),
                     [this](const error_code& error, std::size_t size) { Sent(error, size); });
}

void FrameChannel::Link::Sent(const error_code& error, std::size_t size) {
  sending_ = false;
  last_sent_ = Clock::now();
  if (error) {
    // Receive() does not end with this: the daemon's last answers may still be here, and after
    // them is how the connection ended.
    not_sent_ = error;
    unsent_.clear();
    return;
  }
  unsent_.insert(0, leaving_, size);
  BeginSending();
  if (sending_ || !ahead_) return;
#ifdef TCP_QUICKACK
  // The daemon's side holds a small answer back until the one before has been acknowledged
  // (Nagle's rule), and a system that expects to send soon acknowledges late: 40 ms for ten
  // wells, whose records take 0.2 ms. All requests are out, so this side has nothing to wait for.
  const int on = 1;
  setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
#endif
}

void FrameChannel::Link::BeginReceiving() {
  if (receiving_) return;
  receiving_ = true;
  socket_.async_receive(
      asio::buffer(piece_.get(), kPiece),
      [this](const error_code& error, std::size_t size) { Received(error, size); });
}

void FrameChannel::Link::Received(const error_code& error, std::size_t size) {
  receiving_ = false;
  end_ = error;
  arrived_.erase(0, std::exchange(taken_, 0));
  arrived_.append(piece_.get(), size);
}

std::optional<std::string> FrameChannel::Link::TakeFrame() {
  const std::size_t size = arrived_.size() - taken_;
  if (size < kLengthBytes) return std::nullopt;
  std::int32_t length = 0;
  memcpy(&length, arrived_.data() + taken_, sizeof(length));
  if (length < 0 || length > kMaxReply) {
    throw ProtocolError("The daemon announced a frame of " + std::to_string(length) + " bytes");
  }
  const auto body = static_cast<std::size_t>(length);
  if (size < kLengthBytes + body) return std::nullopt;
  std::string frame = arrived_.substr(taken_ + kLengthBytes, body);
  taken_ += kLengthBytes + body;
  return frame;
}

FrameChannel::FrameChannel(std::unique_ptr<Link> link) : link_(std::move(link)) {}
FrameChannel::FrameChannel(FrameChannel&& other) noexcept = default;
FrameChannel& FrameChannel::operator=(FrameChannel&& other) noexcept = default;
FrameChannel::~FrameChannel() = default;

#ifndef _WIN32
FrameChannel::FrameChannel(Descriptor connection) : link_(std::make_unique<Link>()) {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  getsockname(connection.get(), reinterpret_cast<sockaddr*>(&address), &size);
  link_->socket().assign(asio::generic::stream_protocol(address.ss_family, 0),
                         connection.Release());
}
#endif

FrameChannel FrameChannel::ConnectTo(const std::string& host, int port, milliseconds limit,
                                     Wake wake) {
  const std::string where = host + " port " + std::to_string(port);
  if (port < 1 || port > 65535) throw ConnectError("No such port: " + std::to_string(port));
  auto link = std::make_unique<Link>();
  link->WakeOn(wake);
  error_code error;
  tcp::resolver resolver(link->socket().get_executor());
  const auto found = resolver.resolve(tcp::v4(), host, std::to_string(port), error);
  if (error) throw ConnectError("Unknown host '" + host + "': " + ErrorText(error));

  const Deadline deadline = Clock::now() + limit;
  for (const auto& address : found) {
    link->Open();
    error = link->Connect(address.endpoint(), deadline);
    if (error) continue;
    Link::Socket& socket = link->socket();
    // Requests are small and each waits for its answer.
    socket.set_option(tcp::no_delay(true), error);
    // A step may take hours without a byte; probes keep the connection known to firewalls, and
    // notice a dead host.
    socket.set_option(asio::socket_base::keep_alive(true), error);
#ifdef _WIN32
    // For the reason that Link::Sent() gives. Windows takes this once and for good.
    DWORD segments = 1;
    DWORD none = 0;
    WSAIoctl(socket.native_handle(), SIO_TCP_SET_ACK_FREQUENCY, &segments, sizeof(segments),
             nullptr, 0, &none, nullptr, nullptr);
#endif
    return FrameChannel(std::move(link));
  }
  throw ConnectError("Cannot connect to " + where + ": " + ErrorText(error));
}

void FrameChannel::WakeOn(Wake wake) {
  link_->WakeOn(wake);
}

void FrameChannel::OnWait(milliseconds interval, std::function<void()> tick) {
  link_->OnWait(interval, std::move(tick));
}

void FrameChannel::LimitSending(milliseconds limit) {
  link_->LimitSending(limit);
}

void FrameChannel::Send(std::string_view body) {
  link_->Send(body);
}

void FrameChannel::SendAhead(std::string_view body) {
  link_->SendAhead(body);
}

std::optional<std::string> FrameChannel::Receive(const Deadline& deadline) {
  return link_->Receive(deadline);
}

void FrameChannel::FinishSending() {
  error_code ignored;
  link_->socket().shutdown(Link::Socket::shutdown_send, ignored);
}

}  // namespace master
