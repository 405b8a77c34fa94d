#include <concepts>
#include <cstdint>
#include <string>
#include <type_traits>

#include "vk_ec/v2016_2/varnok_client.h"
#include "vk_ec/v2017_2/varnok_client.h"

// What either version of the protocol offers under its own name, so that the code above says which
// version it speaks and nothing else. All of it is checked by the compiler.

namespace {

template <class Record>
concept WellRows = requires(Record record) {
  record.wells;
  record.items;
  record.values;
};
template <class Record>
concept RunRows = requires(Record record) {
  record.items;
  record.values;
};
template <class Record>
concept Constraints = WellRows<Record> && requires(Record record) {
  record.setters;
};
template <class Record>
concept FluidModel = requires(Record record) {
  record.fluid_model_name;
  record.eos_name;
  record.component_names;
  record.bic;
  record.eos_property_names;
  record.eos_property_values;
};
template <class Info>
concept Position = requires(Info info) {
  info.position;
  info.time;
  info.date;
  info.display_algorithmic_position();
  Info::to_AlgPos(std::string());
};
template <class Positions>
concept FivePositions = sizeof(Positions) == 4 && requires {
  Positions::UNCONNECTED;
  Positions::STARTING;
  Positions::MODEL_DEFINITION;
  Positions::BEGIN_NEWTON;
  Positions::END_SIMULATE;
};
template <class Manager>
concept Messages = requires(Manager manager) {
  { manager.createMessageBuilder() } -> std::same_as<typename Manager::MessageBuilder>;
  { manager.createMessageDecoder() } -> std::same_as<typename Manager::MessageDecoder>;
  typename Manager::Header;
  { Manager::to_string(Manager::HeaderType::MESS) } -> std::same_as<std::string>;
  requires sizeof(typename Manager::ztyp) == 4;
  Manager::tMESS;
  Manager::tDOUB;
  Manager::tINTE;
  Manager::tCSTR;
};
template <class Manager>
concept Builds = requires(typename Manager::MessageBuilder builder) {
  builder.add_header("", 0, Manager::tMESS);
  builder.add_MESS_header("", 0);
  builder.get_total_size({});
  builder.send();
};
template <class Manager>
concept Decodes = requires(typename Manager::MessageDecoder decoder) {
  { decoder.get_header() } -> std::same_as<typename Manager::Header>;
  decoder.decode_type(Manager::tMESS);
  decoder.check_length(0);
  decoder.finalize();
};
template <class Message, class Socket>
concept Sends = requires(Message message, Socket& socket) {
  message.send(socket);
  message.send_initial_header(0, 0, socket);
  message.send_header(0, socket);
  message.send_buffer(nullptr, 0, socket);
};
template <class Message, class Socket>
concept Receives = requires(Message message, Socket& socket) {
  message.read_initial_header(socket);
  message.read_header(socket);
  message.read_payload(nullptr, 0, socket);
  message.receive_buffer(nullptr, 0, socket);
  message.finalize();
};
template <class Client>
concept Steps = requires(Client client) {
  client.connect("", 0U, 0U);
  client.do_continue();
  client.do_continue_until(0.0);
  client.do_shutdown();
  client.read_READY_answer();
  client.read_vk_answer();
  client.throw_invalid_argument("", 1, 2, 0, 0);
  requires(Client::default_port() == 9001);
};

// A namespace cannot be a template argument.
#define CHECK_NAMES_OF(version)                                                      \
  static_assert(Steps<version::vk_ec::VarnokClient>);                                \
  static_assert(std::is_default_constructible_v<version::vk_ec::VarnokClient>);      \
  static_assert(FivePositions<version::vk_ec::AlgPos>);                              \
  static_assert(Position<version::vk_ec::PositionInfo>);                             \
  static_assert(WellRows<version::vk_ec::WellQueryResults<double>>);                 \
  static_assert(WellRows<version::vk_ec::WellQueryResults<std::string>>);            \
  static_assert(RunRows<version::vk_ec::ReservoirQueryResults<int>>);                \
  static_assert(RunRows<version::vk_ec::ReservoirQueryResults<std::string>>);        \
  static_assert(Constraints<version::vk_ec::WellConstraintResults>);                 \
  static_assert(WellRows<version::vk_ec::IPRDataResults>);                           \
  static_assert(FluidModel<version::vk_ec::ReservoirFluidModelDescription>);         \
  static_assert(FivePositions<version::vk_ec::detail::AlgPos>);                      \
  static_assert(Position<version::vk_ec::detail::PositionInfo>);                     \
  static_assert(Messages<version::vk_ec::detail::MessageMgr>);                       \
  static_assert(Builds<version::vk_ec::detail::MessageMgr>);                         \
  static_assert(Decodes<version::vk_ec::detail::MessageMgr>);                        \
  static_assert(Sends<version::vk_ec::detail::SendMessage, vk_ec::StreamSocket>);    \
  static_assert(Receives<version::vk_ec::detail::RecvMessage, vk_ec::StreamSocket>); \
  static_assert(version::vk_ec::detail::Transporter::default_port() == 9001);        \
  static_assert(std::derived_from<version::vk_ec::detail::ClientTransporter,         \
                                  version::vk_ec::detail::Transporter>)

CHECK_NAMES_OF(v2016_2);
CHECK_NAMES_OF(v2017_2);
#undef CHECK_NAMES_OF

static_assert(!std::same_as<v2016_2::vk_ec::VarnokClient, v2017_2::vk_ec::VarnokClient>);

}  // namespace
