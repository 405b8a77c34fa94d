#include "connector/v2016_2/connector.h"

#include "vk_ec/v2016_2/varnok_client.h"

namespace v2016_2 {

std::unique_ptr<::vk_ec::Client> Connector::NewClient() {
  return std::make_unique<vk_ec::VarnokClient>();
}

// This version of the protocol has no external fluid sources. The master asks for them in any
// version, and goes on when it gets none.
int Connector::SetWellInjectionSource(const std::string& /*well*/, const std::string& /*source*/) {
  return 0;
}

void Connector::SetWellInjectionComposition(
    const std::vector<std::string>& /*sources*/,
    const std::vector<std::vector<double>>& /*compositions*/) {}

}  // namespace v2016_2
