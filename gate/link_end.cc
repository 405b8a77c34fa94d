#include "gate/link_end.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>

#include "gate/clock.h"

namespace gate {
namespace {

using boost::system::error_code;
using Result = TlsSocket::Result;

// What a TLS record holds.
constexpr std::size_t kRecord = 16384;

// What is read at once from the local side: as DATA frames it fills four records to the last byte.
// One byte more would cost a record and a system call of its own.
constexpr std::size_t kPiece = 4 * (kRecord - Stream::kDataHead);

// One link takes its turn for so many records, then the others have theirs.
constexpr int kTurn = 16;

// There is one thread, and no call that uses it calls another that does: all links share one
// buffer.
std::array<char, 4 * kRecord>& Scratch() {
  static std::array<char, 4 * kRecord> scratch;
  return scratch;
}

}  // namespace

LinkEnd::LinkEnd(Tcp::socket local, std::unique_ptr<Stream> stream, Events events)
    : local_(std::move(local)),
      stream_(std::move(stream)),
      events_(std::move(events)),
      timer_(local_.get_executor()) {
  Prepare(local_);
}

LinkEnd::~LinkEnd() = default;

Tcp::endpoint LinkEnd::local_endpoint() const {
  error_code gone;
  return local_.local_endpoint(gone);
}

void LinkEnd::Take(std::unique_ptr<Wire> wire) {
  CloseGently(std::move(wire_));
  unsent_.clear();
  wire_ = std::move(wire);
  epoch_ = stream_->epoch();
  wire_readable_ = true;  // TLS may have read ahead
  wire_writable_ = true;
  awaits_wire_read_ = awaits_wire_write_ = false;
  Advance();
}

void LinkEnd::End(Reason reason) {
  if (finished_) return;
  stream_->End(reason);
  Advance();
}

void LinkEnd::Advance() {
  if (advancing_ || finished_) return;
  advancing_ = true;
  const auto self = shared_from_this();
  ReadLocal();
  WriteWire();
  ReadWire();
  WriteLocal();
  WriteWire();  // what was taken is acknowledged
  advancing_ = false;
  if (stream_->state() == Stream::State::kEnded) {
    Finish();
  } else {
    Await();
  }
}

void LinkEnd::ReadLocal() {
  for (int i = 0; i < kTurn / 4 && local_open_ && !local_ends_ && local_readable_; ++i) {
    const std::size_t room = std::min(kPiece, stream_->RoomForLocal());
    if (room == 0) return;
    error_code error;
    const std::size_t size = local_.read_some(boost::asio::buffer(Scratch().data(), room), error);
    if (!error) {
      stream_->FromLocal({Scratch().data(), size});
      if (stream_->awaits_records()) AcknowledgeNow(local_);
      if (size < room && local_takes_) local_readable_ = false;
      WriteWire();
    } else if (error == boost::asio::error::would_block && local_takes_) {
      local_readable_ = false;
    } else if (error == boost::asio::error::eof && local_takes_) {
      local_ends_ = true;
      stream_->LocalEnded();
      AwaitHangUp();
    } else {
      CloseLocal();
    }
  }
}

void LinkEnd::WriteWire() {
  while (wire_ && wire_writable_) {
    std::string_view bytes = unsent_;
    if (bytes.empty()) {
      bytes = {Scratch().data(), stream_->ForWire(epoch_, Scratch().data(), kRecord)};
    }
    if (bytes.empty()) return;
    std::size_t put = 0;
    switch (wire_->tls->Write(bytes, put)) {
      case Result::kDone:
        break;
      case Result::kWantWrite:
        wire_writable_ = false;
        break;
      case Result::kWantRead:
        wire_writable_ = wire_readable_ = false;
        break;
      case Result::kBroken:
        return LoseWire(wire_->tls->error());
    }
    unsent_ = std::string(bytes.substr(put));
  }
}

void LinkEnd::ReadWire() {
  for (int i = 0; i < kTurn && wire_ && wire_readable_; ++i) {
    const bool opening = stream_->state() == Stream::State::kOpening;
    std::size_t got = 0;
    switch (wire_->tls->Read(Scratch(), got)) {
      case Result::kDone:
        break;
      case Result::kWantRead:
        wire_readable_ = false;
        wire_writable_ = true;  // a write that has waited for this may go on
        return;
      case Result::kWantWrite:
        wire_readable_ = wire_writable_ = false;
        return;
      case Result::kBroken:
        return LoseWire(wire_->tls->error());
    }
    const bool of_use = stream_->FromWire(epoch_, {Scratch().data(), got}, Now());
    if (opening && stream_->state() == Stream::State::kAttached) events_.attached();
    if (!of_use) {
      if (stream_->state() != Stream::State::kEnded) LoseWire("The other gate is busy");
      return;
    }
  }
}

void LinkEnd::WriteLocal() {
  if (claim_) TakeClaim();
  if (swallows_) {
    for (std::string_view bytes = stream_->ForLocal(); !bytes.empty();
         bytes = stream_->ForLocal()) {
      stream_->LocalTook(bytes.size(), Now());
    }
  }
  PassHeld();
  while (!claim_ && held_.empty() && local_open_ && local_writable_) {
    const std::string_view bytes = stream_->ForLocal();
    if (bytes.empty()) break;
    error_code error;
    const std::size_t size =
        local_.write_some(boost::asio::buffer(bytes.data(), bytes.size()), error);
    if (error == boost::asio::error::would_block) {
      local_writable_ = false;
    } else if (error) {
      LocalTakesNoMore();
    } else {
      local_told_ = true;
      stream_->LocalTook(size, Now());
    }
  }
  if (stream_->EndsLocal() && (claim_ || held_.empty())) EndLocal();
  if (stream_->BreaksLocal()) CloseLocal();
}

// Reads along until the master has claimed to be somebody, and lets it pass or refuses it.
void LinkEnd::TakeClaim() {
  while (claim_->state() == Claim::State::kOpen) {
    const std::string_view bytes = stream_->ForLocal();
    if (bytes.empty()) return;
    held_ += bytes;
    claim_->Read(bytes);
    stream_->LocalTook(bytes.size(), Now());
  }
  const Claim claim = *std::exchange(claim_, std::nullopt);
  if (claim.state() == Claim::State::kNotAMaster) {
    // The daemon closes the connection at these bytes, and without the rest it starts nothing.
    held_.resize(claim.version_bytes());
    swallows_ = true;
    return;
  }
  const std::string refusal = events_.judge(claim);
  if (!refusal.empty()) RefuseMaster(refusal);
}

void LinkEnd::RefuseMaster(const std::string& text) {
  if (finished_) return;
  claim_.reset();
  held_.clear();
  swallows_ = true;
  if (local_ends_) return;  // the daemon itself has ended the connection
  // The daemon's greeting, 5 bytes, is whole or has not come. A master that has sent its request
  // has seen it, unless it does not wait for it.
  if (stream_->given() == 0) stream_->FromLocal(LineFrame(kDaemonVersion));
  stream_->FromLocal(LineFrame(text));
  stream_->LocalEnded();
  local_ends_ = true;
  local_open_ = false;
  error_code ignored;
  local_.close(ignored);
  Advance();
}

void LinkEnd::PassHeld() {
  if (claim_) return;
  while (!held_.empty() && local_writable_) {
    error_code error;
    const std::size_t size = local_.write_some(boost::asio::buffer(held_), error);
    if (error == boost::asio::error::would_block) {
      local_writable_ = false;
    } else if (error) {
      LocalTakesNoMore();
    } else {
      held_.erase(0, size);
    }
  }
  if (held_.empty()) held_.shrink_to_fit();
}

// The master, or the daemon, has got all that there will be.
void LinkEnd::EndLocal() {
  // A master that leaves before it has said who it is: the daemon has got nothing of it.
  claim_.reset();
  held_.clear();
  error_code ignored;
  if (local_open_) local_.shutdown(Tcp::socket::shutdown_send, ignored);
  local_shut_ = true;
  stream_->LocalTookEnd();
}

// The local peer sends no more, and may have closed for good, which looks the same. Keep-alive
// probes tell, as the daemon's do: a peer that has gone answers them with a reset.
void LinkEnd::AwaitHangUp() {
  error_code ignored;
  local_.set_option(Tcp::socket::keep_alive(true), ignored);
#ifdef TCP_KEEPIDLE
  using boost::asio::detail::socket_option::integer;
  local_.set_option(integer<IPPROTO_TCP, TCP_KEEPIDLE>(1), ignored);
  local_.set_option(integer<IPPROTO_TCP, TCP_KEEPINTVL>(1), ignored);
  local_.set_option(integer<IPPROTO_TCP, TCP_KEEPCNT>(60), ignored);
#endif
  local_.async_wait(Tcp::socket::wait_error, [self = shared_from_this()](error_code error) {
    if (error || self->finished_ || !self->local_open_ || self->local_shut_) return;
    self->CloseLocal();
    self->Advance();
  });
}

// The local peer has closed its connection with bytes unread. What it had said before, why it
// closed perhaps, has arrived and is read first; ReadLocal() closes when there is no more.
void LinkEnd::LocalTakesNoMore() {
  local_takes_ = local_writable_ = false;
  local_readable_ = true;
  if (local_ends_) CloseLocal();
}

// The local connection is of no more use.
void LinkEnd::CloseLocal() {
  local_open_ = false;
  local_ends_ = true;
  claim_.reset();
  held_.clear();
  error_code ignored;
  local_.close(ignored);
  stream_->LocalBroke();
}

void LinkEnd::LoseWire(const std::string& why) {
  unsent_.clear();
  CloseGently(std::move(wire_));
  stream_->Broken(epoch_);
  if (stream_->state() != Stream::State::kEnded) events_.broken(why);
}

void LinkEnd::Finish() {
  finished_ = true;
  WriteWire();
  CloseGently(std::move(wire_));
  error_code ignored;
  timer_.cancel(ignored);
  const Events events = std::exchange(events_, {});
  if (local_open_) {
    const std::string text = events.farewell && !local_told_ ? events.farewell() : "";
    error_code gone;
    if (!text.empty()) local_.write_some(boost::asio::buffer(RefusalFrames(text)), gone);
    CloseGently(std::move(local_));
  }
  local_open_ = false;
  events.ended();
}

void LinkEnd::Await() {
  const bool reads_local = local_open_ && !local_ends_ && stream_->RoomForLocal() > 0;
  if ((reads_local && local_readable_) || (wire_ != nullptr && wire_readable_)) {
    // This link has had its turn, and gets the next one when the others have had theirs.
    if (!std::exchange(has_turn_, true)) {
      boost::asio::post(local_.get_executor(), [self = shared_from_this()] {
        self->has_turn_ = false;
        self->Advance();
      });
    }
  }
  if (reads_local && !local_readable_) {
    AwaitLocal(Tcp::socket::wait_read, awaits_local_read_, local_readable_);
  }
  if (local_open_ && local_takes_ && !local_writable_) {
    AwaitLocal(Tcp::socket::wait_write, awaits_local_write_, local_writable_);
  }
  if (wire_ != nullptr && !wire_readable_) AwaitWire(Tcp::socket::wait_read, awaits_wire_read_);
  if (wire_ != nullptr && !wire_writable_) AwaitWire(Tcp::socket::wait_write, awaits_wire_write_);
  AwaitTime();
}

void LinkEnd::AwaitLocal(Tcp::socket::wait_type what, bool& awaited, bool& ready) {
  if (std::exchange(awaited, true)) return;
  local_.async_wait(what, [self = shared_from_this(), &awaited, &ready](error_code error) {
    awaited = false;
    if (error == boost::asio::error::operation_aborted || !self->local_open_) return;
    // Waiting once more for such a socket would fail as well.
    if (error) self->CloseLocal();
    ready = true;
    self->Advance();
  });
}

void LinkEnd::AwaitWire(Tcp::socket::wait_type what, bool& awaited) {
  if (std::exchange(awaited, true)) return;
  wire_->socket.async_wait(
      what, [self = shared_from_this(), &awaited, epoch = epoch_](error_code error) {
        if (epoch != self->epoch_ || error == boost::asio::error::operation_aborted) return;
        awaited = false;
        if (self->wire_ == nullptr) return;
        if (error) {
          self->LoseWire(error.message());
        } else {
          // TLS may have to write before it can read, and to read before it can write.
          self->wire_readable_ = true;
          self->wire_writable_ = true;
        }
        self->Advance();
      });
}

// The timer is set again only when it has to ring earlier: most times are put off before they come.
void LinkEnd::AwaitTime() {
  const Time wake = stream_->WakeAt();
  if (wake >= timer_at_) return;
  timer_at_ = wake;
  const Time pause = std::max(Time(1), wake - Now());
  timer_.expires_after(std::min<Time>(pause, std::chrono::hours(24)));
  timer_.async_wait([self = shared_from_this()](error_code error) {
    if (error || self->finished_) return;
    self->timer_at_ = Time::max();
    if (!self->stream_->OnTime(Now())) {
      self->LoseWire("The other gate has been silent for too long");
    }
    self->Advance();
  });
}

}  // namespace gate
