#pragma once

#include <string>

#include "vk_ec/detail/message.h"
#include "vk_ec/detail/position_info.h"
#include "vk_ec/detail/transport.h"

namespace vk_ec::detail {

/// The controller's handle on one running simulation; what the protocol versions have in common.
///
/// Every operation sends one request and blocks until the simulator has answered, however long
/// that takes: a step of the simulation may take hours. None checks whether the simulator is at a
/// position that allows it; the simulator is the judge of that.
///
/// Exceptions: `boost::system::system_error` when the connection fails ("read: End of file"),
/// `std::length_error` and `std::invalid_argument` when an answer is not the expected one. After
/// either the client is of no more use: it refuses further messages with `std::logic_error`. Not
/// for use by two threads at once.
class Client {
 public:
  static constexpr unsigned default_port() { return Transporter::default_port(); }

  /// Opens the connection as `ClientTransporter::connect` does (`timeout` in seconds), performs
  /// the set-up exchange and waits for the simulator's first step answer, which gives the
  /// position. `std::invalid_argument` "Already connected to VARNOK." before anything else if
  /// there is a position already; the simulator's first error as text if it refuses.
  void connect(const std::string& host, unsigned port, unsigned timeout);

  /// Runs to the simulator's next stopping point.
  void do_continue();

  /// Runs to the given simulated time, in days, or to the end of the run.
  void do_continue_until(double time);

  /// Asks the simulator to end. The connection stays open until the client is destroyed.
  void do_shutdown();

  /// The message that follows the answer to every query and setter.
  void read_READY_answer();

  /// The answer to everything that moves the simulation. The fields of the position are set as
  /// they are decoded: after a failure the earlier ones are new.
  void read_vk_answer();

  /// Throws `std::invalid_argument` for two argument lists that should be of the same length. `a`
  /// and `b` are the positions of the arguments, counted from 1.
  [[noreturn]] static void throw_invalid_argument(const std::string& function, int a, int b,
                                                  unsigned long size_a, unsigned long size_b);

  /// What the last step answer said.
  const PositionInfo& position_info() const { return position_info_; }

 protected:
  Client() = default;

  /// Speaks over a connected descriptor, which it owns from now on; `set_up` comes next.
  explicit Client(int connected_descriptor) : transporter_(connected_descriptor) {}

  ~Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// The part of `connect` that follows the opening of the connection.
  void set_up();

  MessageMgr& messages() { return messages_; }

 private:
  void read_STEP_answer(MessageMgr::MessageDecoder& answer);

  ClientTransporter transporter_;
  MessageMgr messages_{transporter_};
  PositionInfo position_info_;
};

}  // namespace vk_ec::detail
