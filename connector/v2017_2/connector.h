#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connector/common_connector.h"

namespace v2017_2 {

namespace vk_ec {
class VarnokClient;
}

/// The connector over protocol version 2017.2.
class Connector : public ::connector::CommonConnector {
 public:
  int SetWellInjectionSource(const std::string& well, const std::string& source) override;
  void SetWellInjectionComposition(const std::vector<std::string>& sources,
                                   const std::vector<std::vector<double>>& compositions) override;

 private:
  std::unique_ptr<::vk_ec::Client> NewClient() override;
  vk_ec::VarnokClient& own_client() const;
};

}  // namespace v2017_2
