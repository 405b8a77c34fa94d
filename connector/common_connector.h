#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connector/connector_base.h"
#include "vk_ec/client.h"

namespace connector {

/// The operations that the connectors of both protocol versions have in common: all but those on
/// injection sources.
class CommonConnector : public ConnectorBase {
 public:
  /// Does not shut the simulator down and does not close the connection: only Shutdown() does. A
  /// controller that ends on an error leaves the connection to the end of its process.
  ~CommonConnector() override;

  void Connect(const std::string& host, int port, int timeout) override;
  int Shutdown() override;
  double GetVersion() override;
  bool IsMetric() override;
  double GetTimeDays() override;
  void GetDate(int& day, int& month, int& year) override;
  void GetStartDate(int& day, int& month, int& year) override;
  bool IsCompositional() override;
  void GetStaticComposition(EOS* eos) override;
  void GetWellStatus(std::vector<StaticWellDef>& wells) override;
  void GetWellVariables(const std::string& well, const std::vector<std::string>& properties,
                        std::vector<double>& values) override;
  void GetWellOpPtData(const std::vector<std::string>& wells,
                       std::vector<DynWellOpPt>& points) override;
  int GetWellIPRData(int ncomponents, const std::vector<std::string>& wells, bool bottom_hole,
                     double skewness, std::vector<DynWellIPR>& tables) override;
  void GetWellConstraints() override;
  void GetWellStatus() override;
  void SetWellUptime(const std::vector<std::string>& wells,
                     const std::vector<double>& fractions) override;
  void SetWellStatus(const std::vector<std::string>& wells,
                     const std::vector<std::string>& statuses) override;
  void SetWellConstraints(const std::vector<std::string>& wells,
                          const std::vector<std::vector<std::string>>& properties,
                          const std::vector<std::vector<double>>& values) override;
  void Newton() override;
  void RunUntil(double time) override;
  bool SimulationEnded() override;

 protected:
  CommonConnector() = default;

  /// A new client of the connector's protocol version, not connected yet.
  virtual std::unique_ptr<::vk_ec::Client> NewClient() = 0;

  /// The client that Connect() has made. Throws "Not connected to the simulator" when there is
  /// none.
  ::vk_ec::Client& client() const;

 private:
  std::unique_ptr<::vk_ec::Client> client_;
};

}  // namespace connector
