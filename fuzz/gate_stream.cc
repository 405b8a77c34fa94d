// Either end of a link between two gates with a hostile one at the other end: frames of any kind,
// in pieces, over connections that are cut and replaced, while the local socket gives and takes as
// it likes. A plain reading of the same bytes says what the local socket gets, when the link has to
// end, and what has to be sent.

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/support/input.h"
#include "fuzz/support/promise.h"
#include "gate/opening.h"
#include "gate/stream.h"

namespace {

using gate::Stream;
using State = Stream::State;

constexpr std::size_t kWindow = 200;

std::uint64_t Number(std::string_view bytes, std::size_t at, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = size; i-- > 0;) {
    number = number * 256 + static_cast<unsigned char>(bytes[at + i]);
  }
  return number;
}

// What the other end may say and has said, and what this end has sent.
struct Model {
  std::string rest;  // of the frames of this connection
  std::uint64_t received = 0;
  std::uint64_t taken = 0;
  bool end = false;
  bool gone = false;
  bool over = false;

  std::string given;
  bool given_ended = false;
  bool broke = false;
  std::uint64_t acked = 0;
  std::uint64_t sent = 0;
  std::uint64_t highest = 0;

  // Appends the DATA that comes with `bytes` to `heard`.
  void Hear(std::string_view bytes, std::string& heard) {
    rest += bytes;
    while (!over && !rest.empty()) {
      const std::size_t used = Frame(heard);
      if (used == 0) return;
      rest.erase(0, used);
    }
  }

  // The bytes of the frame at the beginning of `rest`; 0 when it is not whole.
  std::size_t Frame(std::string& heard) {
    switch (rest[0]) {
      case 1:
        return Data(heard);
      case 2:
        if (rest.size() < 9) return 0;
        over = Number(rest, 1, 8) < acked || Number(rest, 1, 8) > sent;
        if (!over) acked = Number(rest, 1, 8);
        return 9;
      case 3:
      case 7:
        if (rest.size() < 9) return 0;
        over = Number(rest, 1, 8) != received || (rest[0] == 3 ? end : !end || gone);
        (rest[0] == 3 ? end : gone) = true;
        ++received;
        return 9;
      case 4:
      case 5:
        return 1;
      case 6:
        over = rest.size() >= 2;
        return over ? 2 : 0;
      default:
        over = true;
        return 1;
    }
  }

  // DATA is heard before the frame is whole: as much of it as there is.
  std::size_t Data(std::string& heard) {
    if (data_left == 0) {
      if (rest.size() < 13) return 0;
      const std::uint64_t length = Number(rest, 1, 4);
      over = length == 0 || length > 65536 || end || Number(rest, 5, 8) != received ||
             length > kWindow - (received - taken);
      if (over) return 1;
      data_left = length;
      rest.erase(1, 12);  // The byte that says DATA stays until all of it has come.
    }
    const std::size_t part = std::min<std::size_t>(rest.size() - 1, data_left);
    heard.append(rest, 1, part);
    rest.erase(1, part);
    received += part;
    data_left -= part;
    if (broke) taken += part;
    return data_left == 0 ? 1 : 0;
  }
  std::size_t data_left = 0;
};

class Trial {
 public:
  explicit Trial(std::uint8_t kind)
      : connecting_(kind % 2 == 0),
        stream_(connecting_ ? Stream({.window = kWindow, .ahead = false})
                            : Stream(gate::LinkId{{1}}, {.window = kWindow, .ahead = false})) {}

  void Attach(std::uint64_t received, Input& input) {
    if (stream_.state() == State::kEnded) return;
    const bool right = received >= model_.acked && received <= model_.highest;
    if (right || connecting_) {
      model_.rest.clear();
      model_.data_left = 0;
    }
    if (connecting_) {
      epoch_ = stream_.Connect(now_);
      Send(input.Byte());
      gate::Answer answer{.accepted = true, .id = {{1}}, .received = received};
      PROMISE(stream_.FromWire(epoch_, BytesOf(answer), now_) == right);
      if (!right) PROMISE(stream_.reason() == gate::Reason::kBrokenRules);
    } else {
      gate::Opening opening{.epoch = epoch_ + (begun_ ? 1 : 0), .received = received};
      PROMISE(stream_.Accept(opening, now_) == right);
      if (right) epoch_ = opening.epoch;
    }
    begun_ = true;
    if (right) model_.sent = received;
    if (!right && connecting_) model_.over = true;
    greeting_due_ = !connecting_ && (greeting_due_ || right);
  }

  void Hear(std::string_view bytes) {
    if (stream_.state() != State::kAttached) return;
    model_.Hear(bytes, heard_);
    const bool goes_on = stream_.FromWire(epoch_, bytes, now_);
    if (model_.over) PROMISE(!goes_on);
    PROMISE(goes_on == (stream_.state() == State::kAttached));
    Check();
  }

  void Give(std::string_view bytes) {
    bytes = bytes.substr(0, stream_.RoomForLocal());
    stream_.FromLocal(bytes);
    if (stream_.state() != State::kEnded) model_.given += bytes;
  }

  void Take(std::size_t count) {
    const std::string_view bytes = stream_.ForLocal().substr(0, count);
    PROMISE(bytes == std::string_view(heard_).substr(taken_, bytes.size()));
    taken_ += bytes.size();
    model_.taken += bytes.size();
    stream_.LocalTook(bytes.size(), now_);
    if (stream_.EndsLocal()) {
      PROMISE(model_.end && taken_ == heard_.size());
      stream_.LocalTookEnd();
    }
    if (stream_.BreaksLocal()) {
      PROMISE(model_.gone && taken_ == heard_.size());
      Break();
    }
  }

  void End() {
    if (stream_.state() != State::kEnded) model_.given_ended = true;
    stream_.LocalEnded();
  }

  void Break() {
    if (stream_.state() != State::kEnded && !model_.broke) {
      model_.given_ended = model_.broke = true;
      model_.taken += heard_.size() - taken_;
      taken_ = heard_.size();
    }
    stream_.LocalBroke();
  }

  // What is sent is whole frames that say what the local socket has given, from the right place on.
  void Send(std::size_t room) {
    std::array<char, 64 + 255> buffer{};
    const std::size_t size = stream_.ForWire(epoch_, buffer.data(), 64 + room % 256);
    std::string_view sent(buffer.data(), size);
    if (greeting_due_ && size > 0) {
      greeting_due_ = false;
      sent.remove_prefix(gate::Answer::kSize);
    } else if (stream_.state() == State::kOpening) {
      PROMISE(size == gate::Opening::kSize);
      return;
    }
    while (!sent.empty()) sent.remove_prefix(Sent(sent));
    model_.highest = std::max(model_.highest, model_.sent);
  }

  std::size_t Sent(std::string_view frame) {
    switch (frame[0]) {
      case 1: {
        const std::size_t length = Number(frame, 1, 4);
        PROMISE(Number(frame, 5, 8) == model_.sent);
        PROMISE(frame.substr(13, length) ==
                std::string_view(model_.given).substr(model_.sent, length));
        PROMISE(length > 0);
        model_.sent += length;
        return 13 + length;
      }
      case 2:
        PROMISE(Number(frame, 1, 8) <= model_.received);
        PROMISE(Number(frame, 1, 8) >= model_.taken);
        return 9;
      case 3:
        PROMISE(model_.given_ended && model_.sent == model_.given.size());
        PROMISE(Number(frame, 1, 8) == model_.sent++);
        return 9;
      case 7:
        PROMISE(model_.broke && model_.sent == model_.given.size() + 1);
        PROMISE(Number(frame, 1, 8) == model_.sent++);
        return 9;
      case 4:
      case 5:
        return 1;
      default:
        PROMISE(frame == "\6\1" || (!connecting_ && frame == std::string_view("\6\0", 2)));
        return 2;
    }
  }

  void Wait(std::size_t time) {
    now_ += gate::Time(time * 500);
    stream_.OnTime(now_);
  }

  void Check() {
    PROMISE(stream_.kept() <= 2 * kWindow);
    if (stream_.state() == State::kEnded) PROMISE(stream_.kept() == 0);
  }

  Model& model() { return model_; }

 private:
  const bool connecting_;
  Stream stream_;
  Model model_;
  std::uint64_t epoch_ = 0;
  bool begun_ = false;
  bool greeting_due_ = false;
  gate::Time now_{1000};
  std::string heard_;
  std::size_t taken_ = 0;
};

std::string Frame(char kind, std::uint64_t place) {
  std::string bytes(1, kind);
  gate::PutNumber(bytes, place);
  return bytes;
}

std::string Data(std::uint64_t place, std::string_view payload) {
  std::string bytes("\1");
  gate::PutNumber(bytes, static_cast<std::uint32_t>(payload.size()));
  gate::PutNumber(bytes, place);
  return bytes.append(payload);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Trial trial(input.Byte());
  trial.Attach(0, input);
  Model& model = trial.model();
  while (!input.empty()) {
    const std::uint8_t what = input.Byte();
    switch (what % 10) {
      case 0:
        trial.Hear(input.Take(input.Byte()));
        break;
      case 1:
        trial.Hear(Data(model.received, input.Take(what / 10 + 1)));
        break;
      case 2:
        trial.Hear(Frame(2, model.acked + input.Byte()));
        break;
      case 3:
        trial.Hear(Frame(what < 128 ? 3 : 7, model.received));
        break;
      case 4:
        trial.Give(input.Take(input.Byte()));
        break;
      case 5:
        trial.Take(input.Byte());
        break;
      case 6:
        trial.Send(input.Byte());
        break;
      case 7:
        trial.Attach(model.acked + input.Byte(), input);
        break;
      case 8:
        what < 200 ? trial.End() : trial.Break();
        break;
      case 9:
        trial.Wait(what / 10);
        break;
    }
    trial.Check();
  }
  return 0;
}
