#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vk_ec/message.h"

namespace vk_ec {

class Client;

/// `Client::set_constraints_for_wells` for callers who set the same constraints several times: what
/// stays the same is put into the message once.
///
///   ConstraintSetter setter(client, wells, items, values, setters);
///   setter.send();
///   setter.change(next_values);
///   setter.send();
class ConstraintSetter {
 public:
  /// Takes and checks the lists as `Client::set_constraints_for_wells` does, and sends nothing. The
  /// client must outlive the object.
  ConstraintSetter(Client& client, const std::vector<std::string>& wells,
                   const std::vector<std::vector<std::string>>& items,
                   const std::vector<std::vector<double>>& values,
                   const std::vector<std::vector<std::string>>& setters);
  ConstraintSetter(const ConstraintSetter&) = delete;
  ConstraintSetter& operator=(const ConstraintSetter&) = delete;

  /// The values of the next request: of as many wells, and per well as many, as there were, else
  /// `std::invalid_argument`. There is none after a request that could not be sent:
  /// `std::logic_error`.
  void change(const std::vector<std::vector<double>>& values);

  /// Blocks until the simulator is ready again.
  void send();

 private:
  // Where the values of a well stand in the message.
  struct Place {
    std::size_t offset;
    std::size_t count;
  };

  Client& client_;
  MessageMgr::Buffer message_;
  std::vector<Place> places_;
};

}  // namespace vk_ec
