#pragma once

#include "vk_ec/detail/client.h"

namespace v2017_2::vk_ec {

using ::vk_ec::AlgPos;
using ::vk_ec::PositionInfo;

namespace detail {

using ::vk_ec::AlgPos;
using ::vk_ec::PositionInfo;
using ::vk_ec::detail::ClientTransporter;
using ::vk_ec::detail::MessageMgr;
using ::vk_ec::detail::RecvMessage;
using ::vk_ec::detail::SendMessage;
using ::vk_ec::detail::Transporter;

}  // namespace detail

/// The client of protocol version 2017.2.
class VarnokClient : public ::vk_ec::detail::Client {
 public:
  /// Opens nothing; `connect` comes first.
  VarnokClient() = default;

 protected:
  using Client::Client;
};

}  // namespace v2017_2::vk_ec
