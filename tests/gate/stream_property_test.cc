// Any sequence of things that happen to a link, against a model of two queues: at all times each
// end has heard a beginning of what the other has said, memory is bounded, and when the network
// comes back at last and everybody listens, all has been heard.

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/gate/gates.h"
#include "tests/support/generators.h"

namespace {

using gate::Stream;
using State = Stream::State;

constexpr std::size_t kWindow = 300;

struct Event {
  enum Kind : unsigned char { kGive, kHear, kSend, kArrive, kWait, kCut, kConnect, kEnd, kFail };
  Kind kind;
  From side;
  std::size_t amount;
};

std::ostream& operator<<(std::ostream& out, const Event& event) {
  static const char* const kNames[] = {"give", "hear",    "send", "arrive", "wait",
                                       "cut",  "connect", "end",  "fail"};
  return out << kNames[event.kind] << ' ' << event.side << ' ' << event.amount;
}

// Most of what happens is bytes that move.
rc::Gen<Event> AnyEvent() {
  const auto kind = rc::gen::weightedElement<Event::Kind>({{8, Event::kGive},
                                                           {8, Event::kHear},
                                                           {10, Event::kSend},
                                                           {10, Event::kArrive},
                                                           {2, Event::kWait},
                                                           {2, Event::kCut},
                                                           {4, Event::kConnect}});
  return rc::gen::build<Event>(rc::gen::set(&Event::kind, kind),
                               rc::gen::set(&Event::side, rc::gen::element(kMaster, kDaemon)),
                               rc::gen::set(&Event::amount, rc::gen::inRange<std::size_t>(1, 200)));
}

class Trial {
 public:
  Trial() : gates_({.window = kWindow}) {}

  void Do(const Event& event) {
    switch (event.kind) {
      case Event::kGive:
        Speak(event.side, event.amount);
        gates_.Give(event.side, event.amount);
        break;
      case Event::kHear:
        gates_.Hear(event.side, event.amount);
        break;
      case Event::kSend:
        gates_.Send(event.side, event.amount);
        break;
      case Event::kArrive:
        gates_.Arrive(event.side, event.amount);
        break;
      case Event::kWait:
        Wait(gate::Time(100 * event.amount));
        break;
      case Event::kCut:
        gates_.Cut();
        break;
      case Event::kConnect:
        if (gates_.connecting().state() != State::kEnded) gates_.Connect();
        break;
      case Event::kEnd:
        gates_.End(event.side);
        break;
      case Event::kFail:
        if (event.side == kDaemon && !gates_.HasServing()) break;
        failed_ = true;
        gates_.Break(event.side);
        break;
    }
    Check();
  }

  // The network is there again, nobody is slow, and both have no more to say.
  void Finish() {
    gates_.End(kMaster);
    gates_.End(kDaemon);
    for (int i = 0; i < 3 && gates_.connecting().state() != State::kEnded; ++i) {
      gates_.Connect();
      gates_.Run(100);
      Check();
    }
    for (const From side : {kMaster, kDaemon}) {
      if (!failed_) {
        RC_ASSERT(gates_.heard(side) == gates_.said(side));
        RC_ASSERT(gates_.heard_end(side));
      }
      RC_ASSERT(gates_.at(side).state() == State::kEnded);
      RC_ASSERT(gates_.at(side).reason() == gate::Reason::kFinished);
      RC_ASSERT(gates_.at(side).kept() == 0U);
    }
    RC_ASSERT(gates_.table().links().empty());
  }

 private:
  // Bytes that do not repeat soon.
  void Speak(From side, std::size_t count) {
    std::string bytes;
    for (std::size_t i = 0; i < count; ++i) {
      state_ = state_ * 1664525 + 1013904223;
      bytes.push_back(static_cast<char>(state_ >> 24));
    }
    gates_.Say(side, bytes);
  }

  void Wait(gate::Time time) {
    gates_.now += time;
    for (const From side : {kMaster, kDaemon}) {
      if (side == kDaemon && !gates_.HasServing()) continue;
      if (!gates_.at(side).OnTime(gates_.now)) {
        gates_.Cut();
        return;
      }
    }
  }

  void Check() {
    for (const From side : {kMaster, kDaemon}) {
      RC_ASSERT(gates_.said(side).compare(0, gates_.heard(side).size(), gates_.heard(side)) == 0);
      if (gates_.heard_end(side) || gates_.heard_break(side))
        RC_ASSERT(gates_.heard(side) == gates_.said(side));
      if (side == kDaemon && !gates_.HasServing()) continue;
      RC_ASSERT(gates_.at(side).kept() <= 2 * kWindow);
      if (gates_.at(side).state() == State::kEnded) {
        RC_ASSERT(gates_.at(side).reason() == gate::Reason::kFinished);
      }
    }
  }

  Gates gates_;
  unsigned state_ = 1;
  bool failed_ = false;
};

RC_GTEST_PROP(StreamProperty, WhateverHappensAllIsHeardInTheEnd, ()) {
  const auto events = *rc::gen::resize(300, rc::gen::container<std::vector<Event>>(AnyEvent()));
  Trial trial;
  for (const Event& event : events) trial.Do(event);
  trial.Finish();
}

// The same with ends that come early, so that what is still to be said goes nowhere.
RC_GTEST_PROP(StreamProperty, EndsComeThroughAnyCuts, ()) {
  const auto before = *rc::gen::resize(50, rc::gen::container<std::vector<Event>>(AnyEvent()));
  const auto after = *rc::gen::resize(100, rc::gen::container<std::vector<Event>>(AnyEvent()));
  const From first = *rc::gen::element(kMaster, kDaemon);
  Trial trial;
  for (const Event& event : before) trial.Do(event);
  trial.Do({Event::kEnd, first, 0});
  for (Event event : after) {
    if (event.kind == Event::kGive && event.side == first) continue;
    trial.Do(event);
  }
  trial.Finish();
}

// A local socket that fails: what it has said comes through, and both gates are rid of the link.
RC_GTEST_PROP(StreamProperty, FailedSocketEndsTheLinkInTheEnd, ()) {
  const auto before = *rc::gen::resize(50, rc::gen::container<std::vector<Event>>(AnyEvent()));
  const auto after = *rc::gen::resize(50, rc::gen::container<std::vector<Event>>(AnyEvent()));
  const From first = *rc::gen::element(kMaster, kDaemon);
  Trial trial;
  for (const Event& event : before) trial.Do(event);
  trial.Do({Event::kFail, first, 0});
  for (Event event : after) {
    if (event.kind == Event::kGive && event.side == first) continue;
    trial.Do(event);
  }
  trial.Finish();
}

}  // namespace
