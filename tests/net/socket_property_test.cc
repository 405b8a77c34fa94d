#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "net/socket.h"
#include "tests/support/bytes.h"
#include "tests/support/generators.h"
#include "tests/support/socket_pair.h"

namespace {

// Sends pieces so that each receive finds no more than one of them: the next goes when the last has
// been taken.
class PiecewisePeer {
 public:
  PiecewisePeer(const SocketPair& pair, std::vector<std::string> pieces)
      : thread_(
            [this, receiver = pair.ours.get(), sender = pair.peer.get(), all = std::move(pieces)] {
              for (const std::string& piece : all) {
                WriteAll(sender, piece);
                for (int waiting = 1; waiting > 0 && !over_; sched_yield()) {
                  ioctl(receiver, FIONREAD, &waiting);
                }
              }
              shutdown(sender, SHUT_WR);
            }) {}
  PiecewisePeer(const PiecewisePeer&) = delete;
  PiecewisePeer& operator=(const PiecewisePeer&) = delete;
  ~PiecewisePeer() {
    over_ = true;  // a receiver that has failed takes no more
    thread_.join();
  }

 private:
  std::atomic<bool> over_{false};
  std::thread thread_;
};

std::vector<std::string> Cut(const std::string& bytes, std::vector<std::size_t> places) {
  for (std::size_t& place : places) place %= bytes.size() + 1;
  places.push_back(bytes.size());
  std::sort(places.begin(), places.end());
  std::vector<std::string> pieces;
  std::size_t begin = 0;
  for (const std::size_t place : places) {
    if (place > begin) pieces.push_back(bytes.substr(begin, place - begin));
    begin = place;
  }
  return pieces;
}

// Places near the beginning, in the length field, and anywhere.
rc::Gen<std::vector<std::size_t>> AnyPlaces() {
  return rc::gen::container<std::vector<std::size_t>>(
      rc::gen::oneOf(rc::gen::inRange<std::size_t>(1, 6), rc::gen::arbitrary<std::size_t>()));
}

rc::Gen<std::string> AnyBody(std::size_t longest) {
  return rc::gen::oneOf(
      rc::gen::nonEmpty(any::Bytes()),
      rc::gen::map(rc::gen::inRange<std::size_t>(1, longest + 1), [](std::size_t size) {
        std::string body(size, '\0');
        for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 7 + i / 251);
        return body;
      }));
}

// A Socket that leaves its descriptor to the pair.
class BorrowedSocket : public Socket {
 public:
  explicit BorrowedSocket(const SocketPair& pair) : Socket(pair.ours.get()) {}
  ~BorrowedSocket() override { handle_ = -1; }
};

RC_GTEST_PROP(SocketProperty, FramesCutAtAnyPlacesAreReceivedTheSameIntoABuffer, ()) {
  const std::vector<std::string> bodies = {*AnyBody(65'536), *AnyBody(3'000)};
  SocketPair pair;
  BorrowedSocket socket(pair);
  PiecewisePeer peer(pair, Cut(Frame(bodies[0]) + Frame(bodies[1]), *AnyPlaces()));
  std::vector<char> buffer(65'536);
  for (const std::string& body : bodies) {
    int length = -7;
    RC_ASSERT(socket.ReceiveLine(buffer.data(), 2'048, length) == 0);
    RC_ASSERT(length == static_cast<int>(body.size()));
    RC_ASSERT(std::string(buffer.data(), body.size()) == body);
  }
}

RC_GTEST_PROP(SocketProperty, FramesCutAtAnyPlacesAreReceivedTheSameAsAString, ()) {
  const std::vector<std::string> bodies = {*AnyBody(32'767), *AnyBody(300)};
  SocketPair pair;
  BorrowedSocket socket(pair);
  PiecewisePeer peer(pair, Cut(Frame(bodies[0]) + Frame(bodies[1]), *AnyPlaces()));
  for (const std::string& body : bodies) {
    int length = -7;
    RC_ASSERT(socket.ReceiveLine(length) == body);
    RC_ASSERT(length == static_cast<int>(body.size()));
  }
}

RC_GTEST_PROP(SocketProperty, WhatOneEndSendsAsAFrameIsWhatTheOtherReceives, ()) {
  const std::string body = *AnyBody(30'000);
  SocketPair pair;
  Socket sender(pair.peer.Release());
  BorrowedSocket receiver(pair);
  const bool as_text = *rc::gen::arbitrary<bool>();
  if (as_text) {
    RC_ASSERT(sender.SendLine(body) == static_cast<int>(body.size() + 4));
  } else {
    RC_ASSERT(sender.SendLine(body.data(), static_cast<unsigned>(body.size())) == 0);
  }
  int length = 0;
  RC_ASSERT(receiver.ReceiveLine(length) == body);
}

}  // namespace
