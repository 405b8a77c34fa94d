#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vk_ec/message.h"
#include "vk_ec/position_info.h"
#include "vk_ec/results.h"
#include "vk_ec/transport.h"
#include "vk_ec/well_rows.h"

namespace vk_ec {

/// What distinguishes the protocol versions inside the common operations.
struct ProtocolTraits {
  /// The component list of the field-management fluid model is announced as "NCOMPS"; otherwise
  /// under a name that says nothing.
  bool names_component_count;
};

/// The controller's handle on one running simulation; what the protocol versions have in common.
///
/// Every operation sends one request and blocks until the simulator has answered, however long
/// that takes: a step of the simulation may take hours. None checks whether the simulator is at a
/// position that allows it; the simulator is the judge of that.
///
/// Exceptions: `boost::system::system_error` when the connection fails ("read: End of file"),
/// `std::length_error` and `std::invalid_argument` when an answer is not the expected one. After
/// either the client is of no more use: it refuses further messages with `std::logic_error`, unless
/// nothing of an answer had arrived. Not for use by two threads at once.
class Client {
 public:
  virtual ~Client() = default;

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

  /// The values of `items` for each of `wells`; T is `double` or `std::string`. The simulator may
  /// answer for other wells and items than those asked for, in any order.
  template <typename T>
  WellQueryResults<T> get_properties_for_wells(const std::vector<std::string>& wells,
                                               const std::vector<std::string>& items);

  /// Asks as `get_properties_for_wells` does, for a caller who takes the answer row by row. Blocks
  /// until the reply is there.
  template <typename T>
  WellRows<T> query_wells(const std::vector<std::string>& wells,
                          const std::vector<std::string>& items);

  /// The values of `items` of the whole run; T is `int` or `std::string`.
  template <typename T>
  ReservoirQueryResults<T> get_reservoir_properties(const std::vector<std::string>& items);

  WellConstraintResults get_constraints_for_wells(const std::vector<std::string>& wells);

  /// Inflow-performance curves, with one pressure type per well (otherwise
  /// `std::invalid_argument`, and nothing is sent). The simulator may choose another number of
  /// points for a well. Without wells or points the result is empty and nothing is sent.
  IPRDataResults get_ipr_data_for_wells(const std::vector<std::string>& wells,
                                        const std::vector<std::string>& pressure_types,
                                        unsigned npoints, double skewness);

  /// The component names of the field-management fluid model; none if it has none.
  std::vector<std::string> get_field_management_fluid_model_description();

  /// One description per fluid model of the reservoir.
  std::vector<ReservoirFluidModelDescription> get_reservoir_fluid_model_description();

  /// Gives each well its constraints. Per well, `items`, `values` and `setters` (who sets it:
  /// "USER", ...) are of the same length. Lists that do not fit are `std::invalid_argument`, here
  /// as in the other setters, and then nothing is sent.
  void set_constraints_for_wells(const std::vector<std::string>& wells,
                                 const std::vector<std::vector<std::string>>& items,
                                 const std::vector<std::vector<double>>& values,
                                 const std::vector<std::vector<std::string>>& setters);

  /// Opens or shuts wells: one status per well. `closure` says how a well is closed (the
  /// well-closure mode).
  void set_status_for_wells(const std::vector<std::string>& wells,
                            const std::vector<std::string>& statuses, const std::string& closure);

  /// One fraction per well.
  void set_uptime_fractions_for_wells(const std::vector<std::string>& wells,
                                      const std::vector<double>& fractions);

  /// What the last step answer said.
  const PositionInfo& position_info() const { return position_info_; }

  /// The stages of one exchange, from which every query and setter is made. A message that changes
  /// something begins with `begin_set`, a query with `begin_query`; `kind` is the word by which the
  /// simulator knows it. The caller adds the data and END, and sends.
  MessageMgr::MessageBuilder begin_set(const std::string& kind);
  MessageMgr::MessageBuilder begin_query(const std::string& kind);

  /// Sends a whole message that a builder has released, as `MessageMgr::resend` does, and blocks
  /// until the simulator is ready again.
  void repeat_set(MessageMgr::Buffer& message);

  /// `begin_reply` blocks until the reply to a query is there; the caller reads it up to and
  /// including END. `end_reply` then blocks until the simulator is ready again.
  MessageMgr::MessageDecoder begin_reply();
  void end_reply(MessageMgr::MessageDecoder& reply);

 protected:
  explicit Client(ProtocolTraits traits) : traits_(traits) {}

  /// Speaks over a connected descriptor, which it owns from now on; `set_up` comes next.
  Client(ProtocolTraits traits, int connected_descriptor)
      : traits_(traits), transporter_(connected_descriptor) {}

  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// The part of `connect` that follows the opening of the connection.
  void set_up();

 private:
  void read_STEP_answer(MessageMgr::MessageDecoder& answer);

  // `kind` is the word by which the simulator knows the query.
  template <typename T>
  WellQueryResults<T> get_properties_for_wells_impl(const std::vector<std::string>& wells,
                                                    const std::vector<std::string>& items,
                                                    const std::string& kind);
  template <typename T>
  ReservoirQueryResults<T> get_reservoir_properties_impl(const std::vector<std::string>& items,
                                                         const std::string& kind);
  void send_QWELLS_query(const std::vector<std::string>& wells,
                         const std::vector<std::string>& items, const std::string& kind);
  void send_QRESVR_query(const std::vector<std::string>& items, const std::string& kind);

  ProtocolTraits traits_;
  ClientTransporter transporter_;
  MessageMgr messages_{transporter_};
  PositionInfo position_info_;
};

}  // namespace vk_ec
