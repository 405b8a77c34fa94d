#pragma once

#include "vk_ec/client.h"
#include "vk_ec/message.h"
#include "vk_ec/position_info.h"
#include "vk_ec/results.h"
#include "vk_ec/transport.h"

namespace v2016_2::vk_ec {

using ::vk_ec::AlgPos;
using ::vk_ec::IPRDataResults;
using ::vk_ec::PositionInfo;
using ::vk_ec::ReservoirFluidModelDescription;
using ::vk_ec::ReservoirQueryResults;
using ::vk_ec::WellConstraintResults;
using ::vk_ec::WellQueryResults;

// The layers below the client (MessageMgr, Transporter, ...) are reached under this name.
namespace detail = ::vk_ec;

/// The client of protocol version 2016.2.
class VarnokClient : public ::vk_ec::Client {
 public:
  /// Opens nothing; `connect` comes first.
  VarnokClient() : Client(kTraits) {}

 protected:
  explicit VarnokClient(int connected_descriptor) : Client(kTraits, connected_descriptor) {}

 private:
  static constexpr ::vk_ec::ProtocolTraits kTraits{.names_component_count = false};
};

}  // namespace v2016_2::vk_ec
