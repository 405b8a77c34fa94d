#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "simulator/reservoir.h"
#include "simulator/stop_signal.h"
#include "vk_ec/message.h"

namespace simulator {

/// What the link does on purpose wrong or slowly, to show how a controller bears it. Messages
/// count from 1 in the order in which the simulator sends them; 0 means never.
struct Faults {
  std::string refuse_setup{};               ///< if not empty, the error with which SETUP is refused
  std::uint64_t cut_after = 0;              ///< the connection is cut in the middle of that message
  std::uint64_t wrong_header = 0;           ///< that message begins with the header "BOGUS"
  std::chrono::milliseconds step_delay{0};  ///< pause before each answer to a CONTINUE
};

/// The simulator's end of one controller's connection: answers every message of the
/// external-controller protocol from a Reservoir, until either side ends the run.
class ControllerLink {
 public:
  enum class Version { k2016_2, k2017_2 };

  enum class Ending {
    kShutdown,        ///< the controller asked for it and has its answer
    kControllerLeft,  ///< it closed the connection between two messages
    kBroken,          ///< it went away in mid-message or broke the protocol
    kFault,           ///< the connection was cut as Faults demand
    kStopped,         ///< StopSignal was raised
  };

  struct Listeners {
    std::function<void(const Reservoir&)> stepped;    ///< after every answer with a position
    std::function<void(const std::string&)> noticed;  ///< one line for the run log
  };

  /// `reservoir` and `stop` stay the caller's and must outlive this.
  ControllerLink(Reservoir& reservoir, Version version, Faults faults, StopSignal& stop,
                 Listeners listeners);

  /// Serves the controller on `connection`, a connected stream socket, and closes it. Blocks until
  /// the run ends. A failure is an ending, and `noticed` gets its text.
  Ending serve(Descriptor connection);

 private:
  using Manager = vk_ec::MessageMgr;
  using Decoder = Manager::MessageDecoder;
  using Builder = Manager::MessageBuilder;

  enum class Position { kUnconnected, kModelDefinition, kBeginNewton, kEndSimulate };

  struct Shutdown {};  // thrown to leave the conversation once FINISHED is out
  struct Cut {};       // thrown to leave it once the connection has been cut

  void converse(int descriptor);
  void answer(Decoder message);
  void set_up(Decoder message);
  void advance(Decoder& message, double until);
  void shut_down(Decoder message);
  void query(Decoder message);
  void set(Decoder message);

  void query_wells(Decoder& message, bool texts);
  void query_reservoir_numbers(Decoder& message);
  void query_reservoir_texts(Decoder& message);
  void query_constraints(Decoder& message);
  void query_inflow(Decoder& message);
  void query_field_model(Decoder& message);
  void query_reservoir_model(Decoder& message);

  void set_constraints(Decoder& message);
  void set_status(Decoder& message);
  void set_uptime(Decoder& message);
  void set_source(Decoder& message);
  void create_source(Decoder& message);

  /// The positions of the named wells in the model; "*" stands for all, unknown names are left out.
  std::vector<std::size_t> wells_named(const std::vector<std::string>& names) const;

  /// Begins a message and counts it. The one that a fault names is cut or gets a wrong header.
  Builder begin(const std::string& name);
  void cut(const std::string& name);
  static void end(Builder& builder);
  void finish(Decoder& message);
  void send_position();
  void send_ready();
  void notice(const std::string& line) const;
  void check(bool done, const std::string& what) const;

  Reservoir& reservoir_;
  Version version_;
  Faults faults_;
  StopSignal& stop_;
  Listeners listeners_;
  Position position_ = Position::kUnconnected;
  std::uint64_t sent_ = 0;
  int descriptor_ = -1;
  std::unique_ptr<Manager> manager_;
};

}  // namespace simulator
