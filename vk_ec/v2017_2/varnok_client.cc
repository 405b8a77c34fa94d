#include "vk_ec/v2017_2/varnok_client.h"

namespace v2017_2::vk_ec {

using Strings = std::vector<std::string>;

void VarnokClient::set_composition_of_fluid_source_external(const std::string& name,
                                                            const std::vector<double>& values,
                                                            const Strings& component_names,
                                                            const std::string& phase) {
  if (values.size() != component_names.size()) {
    throw_invalid_argument("VarnokClient::set_composition_of_fluid_source_external", 2, 3,
                           values.size(), component_names.size());
  }
  begin_set("SETWSTRE")
      .add_data("STNAME", Strings{name})
      .add_data("STCMPVALUES", values)
      .add_data("STCMPNAMES", component_names)
      .add_data("STPHASE", Strings{phase})
      .add_MESS_header("END", 0)
      .send();
  read_READY_answer();
}

bool VarnokClient::create_attached_fluid_source_external(const std::string& well,
                                                         const std::string& name,
                                                         const std::string& phase) {
  begin_set("CREATE_FLDSRCEXT")
      .add_data("WELLNAME", Strings{well})
      .add_data("STNAME", Strings{name})
      .add_data("STPHASE", Strings{phase})
      .add_MESS_header("END", 0)
      .send();
  auto reply = begin_reply();
  const int accepted = reply.get_header_and_data<int>("STRET", 1).front();
  reply.get_header().check_expectation_MESS("END", 0);
  end_reply(reply);
  return accepted != 0;
}

}  // namespace v2017_2::vk_ec
