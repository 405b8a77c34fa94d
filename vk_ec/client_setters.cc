#include "vk_ec/client.h"
#include "vk_ec/constraint_setter.h"

namespace vk_ec {

using Strings = std::vector<std::string>;

MessageMgr::MessageBuilder Client::begin_set(const std::string& kind) {
  auto message = messages_.createMessageBuilder();
  message.add_MESS_header("SET", 0).add_MESS_header(kind, 0);
  return message;
}

void Client::repeat_set(MessageMgr::Buffer& message) {
  messages_.resend(message);
  read_READY_answer();
}

void Client::set_constraints_for_wells(const Strings& wells, const std::vector<Strings>& items,
                                       const std::vector<std::vector<double>>& values,
                                       const std::vector<Strings>& setters) {
  ConstraintSetter(*this, wells, items, values, setters).send();
}

void Client::set_status_for_wells(const Strings& wells, const Strings& statuses,
                                  const std::string& closure) {
  if (wells.size() != statuses.size()) {
    throw_invalid_argument("VarnokClient::set_status_for_wells", 1, 2, wells.size(),
                           statuses.size());
  }
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
  if (wells.size() != fractions.size()) {
    throw_invalid_argument("VarnokClient::set_uptime_fractions_for_wells", 1, 2, wells.size(),
                           fractions.size());
  }
  begin_set("SETWELLS")
      .add_string("SETITEM", "UPTIME_FRACTION")
      .add_data("WELNAMES", wells)
      .add_data("VALUES", fractions)
      .add_MESS_header("END", 0)
      .send();
  read_READY_answer();
}

}  // namespace vk_ec
