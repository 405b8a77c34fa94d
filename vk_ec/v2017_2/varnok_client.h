#pragma once

#include <string>
#include <vector>

#include "vk_ec/client.h"
#include "vk_ec/message.h"
#include "vk_ec/position_info.h"
#include "vk_ec/results.h"
#include "vk_ec/transport.h"

namespace v2017_2::vk_ec {

using ::vk_ec::AlgPos;
using ::vk_ec::IPRDataResults;
using ::vk_ec::PositionInfo;
using ::vk_ec::ReservoirFluidModelDescription;
using ::vk_ec::ReservoirQueryResults;
using ::vk_ec::WellConstraintResults;
using ::vk_ec::WellQueryResults;

// The layers below the client (MessageMgr, Transporter, ...) are reached under this name.
namespace detail = ::vk_ec;

/// The client of protocol version 2017.2.
class VarnokClient : public ::vk_ec::Client {
 public:
  /// Opens nothing; `connect` comes first.
  VarnokClient() : Client(kTraits) {}

  /// Gives the external source `name` its composition: one value per component name (otherwise
  /// `std::invalid_argument`, and nothing is sent).
  void set_composition_of_fluid_source_external(const std::string& name,
                                                const std::vector<double>& values,
                                                const std::vector<std::string>& component_names,
                                                const std::string& phase);

  /// Attaches the external source `name` of `phase` to `well`; true when the simulator accepted it.
  bool create_attached_fluid_source_external(const std::string& well, const std::string& name,
                                             const std::string& phase);

 protected:
  explicit VarnokClient(int connected_descriptor) : Client(kTraits, connected_descriptor) {}

 private:
  static constexpr ::vk_ec::ProtocolTraits kTraits{.names_component_count = true};
};

}  // namespace v2017_2::vk_ec
