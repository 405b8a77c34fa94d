#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connector/common_connector.h"

namespace v2016_2 {

/// The connector over protocol version 2016.2.
class Connector : public ::connector::CommonConnector {
 public:
  int SetWellInjectionSource(const std::string& well, const std::string& source) override;
  void SetWellInjectionComposition(const std::vector<std::string>& sources,
                                   const std::vector<std::vector<double>>& compositions) override;

 private:
  std::unique_ptr<::vk_ec::Client> NewClient() override;
};

}  // namespace v2016_2
