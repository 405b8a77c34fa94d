#include "connector/v2017_2/connector.h"

#include <stdexcept>

#include "vk_ec/v2017_2/varnok_client.h"

namespace v2017_2 {

std::unique_ptr<::vk_ec::Client> Connector::NewClient() {
  return std::make_unique<vk_ec::VarnokClient>();
}

// The client is always one that NewClient() has made.
vk_ec::VarnokClient& Connector::own_client() const {
  return static_cast<vk_ec::VarnokClient&>(client());
}

int Connector::SetWellInjectionSource(const std::string& well, const std::string& source) {
  return own_client().create_attached_fluid_source_external(well, source, "GAS") ? 1 : 0;
}

void Connector::SetWellInjectionComposition(const std::vector<std::string>& sources,
                                            const std::vector<std::vector<double>>& compositions) {
  if (sources.size() != compositions.size()) {
    throw std::runtime_error("Inconsistent data sent to SetWellInjectionComposition");
  }
  for (std::size_t i = 0; i < sources.size(); ++i) {
    std::vector<std::string> names;
    names.reserve(compositions[i].size());
    for (std::size_t component = 1; component <= compositions[i].size(); ++component) {
      names.push_back("TOTAL_MOLE_FRACTION[" + std::to_string(component) + "]");
    }
    own_client().set_composition_of_fluid_source_external(sources[i], compositions[i], names, "");
  }
}

}  // namespace v2017_2
