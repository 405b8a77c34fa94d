// The folder speaks the simulator's external-controller protocol from the controller's side, bottom
// up: stream_socket moves bytes, transport cuts messages into chunks, message lays typed fields out
// and reads them, and the client here makes the protocol's exchanges of them. Both versions of the
// protocol share all of it; v2016_2/ and v2017_2/ state what differs, so that nobody asks for the
// version of a client that exists.
#pragma once

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
  /// Whether the header with the components of the field-management fluid model has to be named
  /// "NCOMPS". If not, any name will do.
  bool names_component_count;
};

/// The controller's handle on one running simulation; what the protocol versions have in common.
///
/// Every operation sends one request and blocks until the simulator has answered, however long
/// that takes: a step of the simulation may take hours. No operation looks at the simulator's
/// position first; a simulator that stands at the wrong one refuses the request itself.
///
/// Exceptions: `boost::system::system_error` when the connection fails ("read: End of file"),
/// `std::length_error` and `std::invalid_argument` when an answer is not the expected one. Once a
/// part of an answer has arrived, a failure makes the client useless: it refuses every further
/// message with `std::logic_error`. Not for use by two threads at once.
class Client {
 public:
  virtual ~Client() = default;

  static constexpr unsigned default_port() { return Transporter::default_port(); }

  /// Opens the connection as `ClientTransporter::connect` does (`timeout` in seconds), performs
  /// the set-up exchange and waits for the simulator's first step answer, which gives the
  /// position. Throws `std::invalid_argument` with the text "Already connected to VARNOK.", before
  /// anything else, if there is a position already; with the simulator's first error as its text,
  /// if the simulator refuses.
  void connect(const std::string& host, unsigned port, unsigned timeout);

  /// Runs to the simulator's next stopping point.
  void do_continue();

  /// Runs to the given simulated time, in days, or to the end of the run.
  void do_continue_until(double time);

  /// Asks the simulator to end. The connection stays open until the client is destroyed.
  void do_shutdown();

  /// Reads READY, the message by which the simulator ends its answer to every query and setter.
  void read_READY_answer();

  /// Reads the simulator's answer to a set-up, a continuation or a shutdown, and takes the position
  /// from it. The fields of the position are set as they are decoded, so that a failure in the
  /// middle of an answer leaves some of them new.
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

  /// Inflow-performance curves of `npoints` points, though the simulator may choose another number
  /// for a well. There has to be one pressure type per well, otherwise `std::invalid_argument` is
  /// thrown. Without wells or points the result is empty. In both cases nothing is sent.
  IPRDataResults get_ipr_data_for_wells(const std::vector<std::string>& wells,
                                        const std::vector<std::string>& pressure_types,
                                        unsigned npoints, double skewness);

  /// The component names of the field-management fluid model; none if the model has none.
  std::vector<std::string> get_field_management_fluid_model_description();

  /// One description per fluid model of the reservoir.
  std::vector<ReservoirFluidModelDescription> get_reservoir_fluid_model_description();

  /// Gives each well its constraints. Per well there are as many `items` (the constraints' names)
  /// as `values` and `setters` (the word for who sets the constraint, for example "USER"). Lists of
  /// different lengths are `std::invalid_argument`, here as in the other setters, and then nothing
  /// is sent.
  void set_constraints_for_wells(const std::vector<std::string>& wells,
                                 const std::vector<std::vector<std::string>>& items,
                                 const std::vector<std::vector<double>>& values,
                                 const std::vector<std::vector<std::string>>& setters);

  /// Opens or shuts wells: one status per well. `closure` is the mode in which a well is closed.
  void set_status_for_wells(const std::vector<std::string>& wells,
                            const std::vector<std::string>& statuses, const std::string& closure);

  /// One fraction per well.
  void set_uptime_fractions_for_wells(const std::vector<std::string>& wells,
                                      const std::vector<double>& fractions);

  /// Where the simulator stands, as its last step answer said.
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

  /// For a client that is connected already: speaks over `connected_descriptor` and closes it in
  /// the end. `set_up` comes next.
  Client(ProtocolTraits traits, int connected_descriptor)
      : traits_(traits), transporter_(connected_descriptor) {}

  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// The part of `connect` that follows the opening of the connection.
  void set_up();

 private:
  void read_STEP_answer(MessageMgr::MessageDecoder& answer);

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
