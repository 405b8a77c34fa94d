#include "vk_ec/constraint_setter.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "vk_ec/client.h"

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
  if (setters.size() != count) {
    Client::throw_invalid_argument(function, 1, 4, count, setters.size());
  }
  // For lists inside a well the established text has the number of wells, twice.
  for (std::size_t well = 0; well < count; ++well) {
    if (values[well].size() != items[well].size()) {
      Client::throw_invalid_argument(function, 2, 3, count, count);
    }
    if (setters[well].size() != items[well].size()) {
      Client::throw_invalid_argument(function, 2, 4, count, count);
    }
  }
}

}  // namespace

ConstraintSetter::ConstraintSetter(Client& client, const Strings& wells,
                                   const std::vector<Strings>& items,
                                   const std::vector<std::vector<double>>& values,
                                   const std::vector<Strings>& setters)
    : client_(client) {
  check_constraints(wells, items, values, setters);
  places_.reserve(wells.size());
  auto message = client_.begin_set("SETWCONSTRAINTS");
  for (std::size_t well = 0; well < wells.size(); ++well) {
    message.add_string("WELLNAME", wells[well])
        .add_data("ITEMS", items[well])
        .add_data("VALUES", values[well]);
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
  if (!std::equal(places_.begin(), places_.end(), values.begin(), values.end(), fits)) {
    throw std::invalid_argument("ConstraintSetter::change: other constraints than before");
  }
  for (std::size_t well = 0; well < values.size(); ++well) {
    const auto [offset, count] = places_[well];
    if (count > 0) {
      std::memcpy(message_.data() + offset, values[well].data(), count * sizeof(double));
    }
  }
}

void ConstraintSetter::send() {
  client_.repeat_set(message_);
}

}  // namespace vk_ec
