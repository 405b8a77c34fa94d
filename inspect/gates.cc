#include "inspect/gates.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <system_error>

#include <nlohmann/json.hpp>

#include "base/number.h"
#include "inspect/run_file.h"

namespace inspect {
namespace {

using Json = nlohmann::json;

constexpr double kOld = 30;
constexpr std::size_t kMostBytes = std::size_t{16} << 20;

GateLink LinkIn(const Json& said) {
  GateLink link;
  link.port = said.at("daemon_port");
  link.peer = said.at("peer");
  link.proof = said.value("proof", "");
  link.claimed = said.value("claimed", "");
  link.broken = said.at("broken_seconds").is_number();
  return link;
}

Gate GateIn(const std::string& file, const Json& said) {
  Gate gate;
  gate.file = file;
  gate.time = said.at("time");
  const std::string daemon = said.at("daemon");
  gate.daemon_port = static_cast<int>(NumberIn(daemon.substr(daemon.rfind(':') + 1).c_str()));
  for (const Json& link : said.at("links")) gate.links.push_back(LinkIn(link));
  gate.counts = said.at("counts");
  gate.arriving = said.at("arriving");
  gate.most_links = said.at("most_links");
  for (const Json& list : said.at("revocation_lists")) {
    const double expires = list.at("next_update");
    gate.list_expires = std::min(gate.list_expires.value_or(expires), expires);
  }
  return gate;
}

}  // namespace

std::vector<Gate> ReadGates(const std::string& directory, double now) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (entry.path().extension() == ".json") files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  std::vector<Gate> gates;
  for (const std::string& file : files) {
    try {
      const Json said = Json::parse(RunFile(file).Read(0, kMostBytes));
      Gate gate = GateIn(file, said);
      if (said.at("running") == true && now - gate.time < kOld) gates.push_back(std::move(gate));
    } catch (const std::exception&) {
      // It is no such document, or one of a later version: nothing is known of that gate.
    }
  }
  return gates;
}

const GateLink* FindLink(const std::vector<Gate>& gates, int master_port, int daemon_port) {
  for (const Gate& gate : gates) {
    if (gate.daemon_port != daemon_port) continue;
    for (const GateLink& link : gate.links) {
      if (link.port == master_port) return &link;
    }
  }
  return nullptr;
}

}  // namespace inspect
