#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// The simulator's end of one connection, played by a thread of the test. It reads whole messages,
/// keeps them, and sends after each what the test has prepared. It understands nothing.
///
///   ScriptedSimulator simulator(ScriptedSimulator::Link::kSocketPair);
///   simulator.AnswerNext({Cstr(...), Mess("READY") + Mess("END")});
///   VarnokClient client(simulator.TakeClientDescriptor()); client.do_something();
///   EXPECT_EQ(simulator.Requests(), ...);
///
/// A request for which nothing is prepared ends the connection, so that a test fails at once
/// instead of waiting. The destructor ends the connection and the thread.
class ScriptedSimulator {
 public:
  enum class Link { kSocketPair, kLoopback };

  /// With kLoopback it listens on a free port of 127.0.0.1 and serves the first client.
  /// Throws std::system_error.
  explicit ScriptedSimulator(Link link);
  ~ScriptedSimulator();
  ScriptedSimulator(const ScriptedSimulator&) = delete;
  ScriptedSimulator& operator=(const ScriptedSimulator&) = delete;

  /// The other end of the socket pair, once. It belongs to the caller then.
  int TakeClientDescriptor();

  /// Where it listens (kLoopback).
  unsigned Port() const { return port_; }

  /// Prepares the answer to one more request: these messages, each of them framed.
  void AnswerNext(const std::vector<std::string>& messages);

  /// Prepares the answer to one more request: these bytes as they are, then the end of the
  /// connection.
  void AnswerNextAndHangUp(const std::string& bytes);

  /// The requests read so far, without their framing. Complete when the client has got its
  /// answers; `WaitForClientToLeave` first if it may have sent something without one.
  std::vector<std::string> Requests() const;

  /// Waits for the end of the connection, by the client or as prepared, and for the thread to have
  /// read all that came. Throws std::runtime_error when the client is still there after `patience`.
  void WaitForClientToLeave(std::chrono::milliseconds patience = std::chrono::seconds(5));

 private:
  struct Answer {
    std::string bytes;
    bool hang_up = false;
  };

  void Listen();
  void Run();
  void Serve();
  bool ReadRequest(std::string& message) const;
  Answer TakeAnswer(std::string request);

  int listener_ = -1;
  int client_ = -1;
  int connection_ = -1;
  unsigned port_ = 0;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::deque<Answer> answers_;
  bool ended_ = false;
  bool leaving_ = false;
  std::condition_variable ending_;
  std::thread thread_;
};
