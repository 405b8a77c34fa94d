#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

#include "vk_ec/client.h"

namespace vk_ec {
namespace {

using Strings = std::vector<std::string>;
using Header = MessageMgr::Header;

// The words by which the simulator knows a query for values of type T.
template <typename T>
constexpr const char* kWellQuery = std::is_same_v<T, double> ? "QWELLS" : "QWELLS_STR";
template <typename T>
constexpr const char* kReservoirQuery = std::is_same_v<T, int> ? "QRESVR" : "QRESVR_STR";

// The one string of `header`, which has been read already.
std::string single_string(MessageMgr::MessageDecoder& reply, const Header& header,
                          std::string_view name) {
  header.check_expectation(name, 1);
  return reply.get_string(header);
}

std::string read_single_string(MessageMgr::MessageDecoder& reply, std::string_view name) {
  const Header header = reply.get_header();
  header.check_expectation(name, 1, MessageMgr::CSTR);
  return reply.get_string(header);
}

}  // namespace

MessageMgr::MessageBuilder Client::begin_query(const std::string& kind) {
  auto query = messages_.createMessageBuilder();
  query.add_MESS_header("QUERY", 0).add_MESS_header(kind, 0);
  return query;
}

MessageMgr::MessageDecoder Client::begin_reply() {
  auto reply = messages_.createMessageDecoder();
  reply.get_header().check_expectation_MESS("REPLY", 0);
  return reply;
}

void Client::end_reply(MessageMgr::MessageDecoder& reply) {
  reply.finalize();
  read_READY_answer();
}

void Client::send_QWELLS_query(const Strings& wells, const Strings& items,
                               const std::string& kind) {
  begin_query(kind)
      .add_data("QITEMS", items)
      .add_data("WELNAMES", wells)
      .add_MESS_header("END", 0)
      .send();
}

void Client::send_QRESVR_query(const Strings& items, const std::string& kind) {
  begin_query(kind).add_data("QITEMS", items).add_MESS_header("END", 0).send();
}

template <typename T>
WellRows<T> Client::query_wells(const Strings& wells, const Strings& items) {
  send_QWELLS_query(wells, items, kWellQuery<T>);
  return WellRows<T>(*this);
}

template WellRows<double> Client::query_wells(const Strings& wells, const Strings& items);
template WellRows<std::string> Client::query_wells(const Strings& wells, const Strings& items);

template <typename T>
WellQueryResults<T> Client::get_properties_for_wells_impl(const Strings& wells,
                                                          const Strings& items,
                                                          const std::string& kind) {
  send_QWELLS_query(wells, items, kind);
  WellQueryResults<T> results;
  WellRows<T> rows(*this);
  for (std::vector<T> row; rows.next(row); row.clear()) {
    if (results.wells.empty()) {
      results.wells.reserve(rows.estimated_count());
      results.values.reserve(rows.estimated_count());
    }
    results.wells.push_back(std::move(rows.well()));
    results.values.push_back(std::move(row));
  }
  results.items = rows.release_items();
  return results;
}

template <typename T>
WellQueryResults<T> Client::get_properties_for_wells(const Strings& wells, const Strings& items) {
  return get_properties_for_wells_impl<T>(wells, items, kWellQuery<T>);
}

template WellQueryResults<double> Client::get_properties_for_wells(const Strings& wells,
                                                                   const Strings& items);
template WellQueryResults<std::string> Client::get_properties_for_wells(const Strings& wells,
                                                                        const Strings& items);

template <typename T>
ReservoirQueryResults<T> Client::get_reservoir_properties_impl(const Strings& items,
                                                               const std::string& kind) {
  send_QRESVR_query(items, kind);
  ReservoirQueryResults<T> results;
  auto reply = begin_reply();
  for (auto header = reply.get_header(); !header.is_end(); header = reply.get_header()) {
    results.items.push_back(single_string(reply, header, "QITEM"));
    results.values.push_back(reply.get_header_and_data<T>("VALUES"));
  }
  end_reply(reply);
  return results;
}

template <typename T>
ReservoirQueryResults<T> Client::get_reservoir_properties(const Strings& items) {
  return get_reservoir_properties_impl<T>(items, kReservoirQuery<T>);
}

template ReservoirQueryResults<int> Client::get_reservoir_properties(const Strings& items);
template ReservoirQueryResults<std::string> Client::get_reservoir_properties(const Strings& items);

WellConstraintResults Client::get_constraints_for_wells(const Strings& wells) {
  begin_query("QWCONSTRAINTS").add_data("WELNAMES", wells).add_MESS_header("END", 0).send();
  WellConstraintResults results;
  auto reply = begin_reply();
  for (auto header = reply.get_header(); !header.is_end(); header = reply.get_header()) {
    results.wells.push_back(single_string(reply, header, "WELLNAME"));
    results.items.push_back(reply.get_header_and_data<std::string>("ITEMS"));
    const auto count = results.items.back().size();
    results.values.push_back(reply.get_header_and_data<double>("VALUES", count));
    results.setters.push_back(reply.get_header_and_data<std::string>("SETTERS", count));
  }
  end_reply(reply);
  return results;
}

IPRDataResults Client::get_ipr_data_for_wells(const Strings& wells, const Strings& pressure_types,
                                              unsigned npoints, double skewness) {
  if (wells.size() != pressure_types.size()) {
    throw_invalid_argument("VarnokClient::get_ipr_data_for_wells", 1, 2, wells.size(),
                           pressure_types.size());
  }
  IPRDataResults results;
  if (npoints == 0 || wells.empty()) return results;

  begin_query("QIPRDATA")
      .add_data("WELNAMES", wells)
      .add_data("PRESSURETYPES", pressure_types)
      .add_data("NPOINTS", std::vector<int>{static_cast<int>(npoints)})
      .add_data("SKEWNESS", std::vector<double>{skewness})
      .add_MESS_header("END", 0)
      .send();

  results.wells.reserve(wells.size());
  results.items.reserve(wells.size());
  results.values.reserve(wells.size());
  auto reply = begin_reply();
  auto header = reply.get_header();
  while (!header.is_end()) {
    results.wells.push_back(single_string(reply, header, "WELLNAME"));
    const int points = reply.get_header_and_data<int>("NPOINTS", 1).front();
    auto& items = results.items.emplace_back();
    auto& curves = results.values.emplace_back();
    for (header = reply.get_header(); header.name == "ITEM"; header = reply.get_header()) {
      items.push_back(single_string(reply, header, "ITEM"));
      // A negative number becomes a count that no message can hold, which is refused.
      curves.push_back(
          reply.get_header_and_data<double>("VALUES", static_cast<std::uint64_t>(points)));
    }
  }
  end_reply(reply);
  return results;
}

std::vector<std::string> Client::get_field_management_fluid_model_description() {
  begin_query("QFMFLUIDMODEL").add_MESS_header("END", 0).send();
  Strings components;
  auto reply = begin_reply();
  const auto header = reply.get_header();
  if (!header.is_end()) {
    if (traits_.names_component_count) header.check_expectation("NCOMPS", header.count);
    components = reply.get_data<std::string>(header);
    reply.get_header().check_expectation_MESS("END", 0);
  }
  end_reply(reply);
  return components;
}

std::vector<ReservoirFluidModelDescription> Client::get_reservoir_fluid_model_description() {
  begin_query("QRFLUIDMODEL").add_MESS_header("END", 0).send();
  std::vector<ReservoirFluidModelDescription> models;
  auto reply = begin_reply();
  auto header = reply.get_header();
  while (!header.is_end()) {
    auto& model = models.emplace_back();
    model.fluid_model_name = single_string(reply, header, "FLUIDMODELDNAME");
    model.eos_name = read_single_string(reply, "EOSNAME");
    model.component_names = reply.get_header_and_data<std::string>("NCOMPS");
    model.bic = reply.get_header_and_data<double>("BIC");
    for (header = reply.get_header(); header.name == "EOSPROPNAME"; header = reply.get_header()) {
      model.eos_property_names.push_back(single_string(reply, header, "EOSPROPNAME"));
      model.eos_property_values.push_back(
          reply.get_header_and_data<double>("VALUES", model.component_names.size()));
    }
  }
  end_reply(reply);
  return models;
}

}  // namespace vk_ec
