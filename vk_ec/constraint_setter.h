#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vk_ec/message.h"

namespace vk_ec {

class Client;

/// Sets the same constraints of the same wells several times, with other values each time. The
/// message is built once, and only the values in it change. `Client::set_constraints_for_wells` is
/// one that is sent once.
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

  /// Gives the next `send` other values. There have to be as many wells as before, and as many
  /// values for each of them, otherwise `std::invalid_argument` is thrown. After a request that
  /// could not be sent no other can follow: `std::logic_error`.
  void change(const std::vector<std::vector<double>>& values);

  /// Blocks until the simulator is ready again.
  void send();

 private:
  // The values of one well, by the offset of their first byte in the message.
  struct Place {
    std::size_t offset;
    std::size_t count;
  };

  Client& client_;
  MessageMgr::Buffer message_;
  std::vector<Place> places_;
};

}  // namespace vk_ec
