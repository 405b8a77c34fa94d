#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "vk_ec/client.h"
#include "vk_ec/constraint_setter.h"

namespace vk_ec {
namespace {

using Strings = std::vector<std::string>;

void check_constraints(const Strings& wells, const std::vector<Strings>& items,
                       const std::vector<std::vector<double>>& values,
                       const std::vector<Strings>& setters) {
  const std::string function = "VarnokClient::set_constraints_for_wells";
  const auto count = wells.size();
  if (items.size() != count) Client::throw_invalid_argument(function, 1, 2, count, items.size());
  if (values.size() != count) Client::throw_invalid_argument(function, 1, 3, count, values.size());
  if (setters.size() != count)
    Client::throw_invalid_argument(function, 1, 4, count, setters.size());
  // Inside a well it is the number of wells that is printed, twice: the established text.
  for (std::size_t well = 0; well < count; ++well) {
    if (values[well].size() != items[well].size())
      Client::throw_invalid_argument(function, 2, 3, count, count);
    if (setters[well].size() != items[well].size())
      Client::throw_invalid_argument(function, 2, 4, count, count);
  }
}

// The part of a well that ends with its values.
void add_values(MessageMgr::MessageBuilder& message, const std::string& well, const Strings& items,
                const std::vector<double>& values) {
  message.add_string("WELLNAME", well).add_data("ITEMS", items).add_data("VALUES", values);
}

}  // namespace

MessageMgr::MessageBuilder Client::begin_set(const std::string& kind) {
  auto message = messages_.createMessageBuilder();
  message.add_MESS_header("SET", 0).add_MESS_header(kind, 0);
  return message;
}

void Client::set_constraints_for_wells(const Strings& wells, const std::vector<Strings>& items,
                                       const std::vector<std::vector<double>>& values,
                                       const std::vector<Strings>& setters) {
  check_constraints(wells, items, values, setters);
  auto message = begin_set("SETWCONSTRAINTS");
  for (std::size_t well = 0; well < wells.size(); ++well) {
    add_values(message, wells[well], items[well], values[well]);
    message.add_data("SETTERS", setters[well]);
  }
  message.add_MESS_header("END", 0).send();
  read_READY_answer();
}

ConstraintSetter::ConstraintSetter(Client& client, const Strings& wells,
                                   const std::vector<Strings>& items,
                                   const std::vector<std::vector<double>>& values,
                                   const std::vector<Strings>& setters)
    : client_(client) {
  check_constraints(wells, items, values, setters);
  places_.reserve(wells.size());
  auto message = client_.begin_set("SETWCONSTRAINTS");
  for (std::size_t well = 0; well < wells.size(); ++well) {
    add_values(message, wells[well], items[well], values[well]);
    const std::size_t count = values[well].size();
    places_.push_back({message.size() - count * sizeof(double), count});
    message.add_data("SETTERS", setters[well]);
  }
  message.add_MESS_header("END", 0);
  message_ = message.release();
}

void ConstraintSetter::change(const std::vector<std::vector<double>>& values) {
  if (message_.empty()) throw std::logic_error("ConstraintSetter::change: sending has failed");
  const auto fits = [](const Place& place, const std::vector<double>& of_well) {
    return place.count == of_well.size();
  };
  if (!std::equal(places_.begin(), places_.end(), values.begin(), values.end(), fits))
    throw std::invalid_argument("ConstraintSetter::change: other constraints than before");
  for (std::size_t well = 0; well < values.size(); ++well) {
    const auto [offset, count] = places_[well];
    if (count > 0)
      std::memcpy(message_.data() + offset, values[well].data(), count * sizeof(double));
  }
}

void ConstraintSetter::send() {
  client_.messages_.resend(message_);
  client_.read_READY_answer();
}

void Client::set_status_for_wells(const Strings& wells, const Strings& statuses,
                                  const std::string& closure) {
  if (wells.size() != statuses.size())
    throw_invalid_argument("VarnokClient::set_status_for_wells", 1, 2, wells.size(),
                           statuses.size());
  begin_set("SETWSTATUS")
      .add_string("WCLOSURE", closure)
      .add_string("SETITEM", "STATUS")
      .add_data("WELNAMES", wells)
      .add_data("VALUES", statuses)
      .add_MESS_header("END", 0)
      .send();
  read_READY_answer();
}

void Client::set_uptime_fractions_for_wells(const Strings& wells,
                                            const std::vector<double>& fractions) {
  if (wells.size() != fractions.size())
    throw_invalid_argument("VarnokClient::set_uptime_fractions_for_wells", 1, 2, wells.size(),
                           fractions.size());
  begin_set("SETWELLS")
      .add_string("SETITEM", "UPTIME_FRACTION")
      .add_data("WELNAMES", wells)
      .add_data("VALUES", fractions)
      .add_MESS_header("END", 0)
      .send();
  read_READY_answer();
}

}  // namespace vk_ec
