#include "inspect/gates.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <nlohmann/json.hpp>

#include "base/number.h"
#include "inspect/run_file.h"

namespace inspect {
namespace {

using Json = nlohmann::json;

constexpr double kOld = 30;
constexpr std::int64_t kMostBytes = std::int64_t{16} << 20;

// Reads a count. Throws on what a gate never says: JSON may hold 1e300 or -1.
std::int64_t CountIn(const Json& said, std::uint64_t most = std::uint64_t{1} << 53) {
  if (!said.is_number_unsigned() || said.get<std::uint64_t>() > most) {
    throw std::out_of_range("no count");
  }
  return said.get<std::int64_t>();
}

GateLink LinkIn(const Json& said) {
  GateLink link;
  link.port = static_cast<int>(CountIn(said.at("daemon_port"), 65535));
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
  for (const auto& [what, count] : said.at("counts").items()) gate.counts[what] = CountIn(count);
  gate.arriving = CountIn(said.at("arriving"));
  gate.most_links = CountIn(said.at("most_links"));
  for (const Json& list : said.at("revocation_lists")) {
    const double expires = list.at("next_update");
    gate.list_expires = std::min(gate.list_expires.value_or(expires), expires);
  }
  return gate;
}

// The document in a file of this owner's; null when another may have written it.
Json DocumentIn(const std::string& file, uid_t owner) {
  const RunFile opened(file, owner);
  const bool own = opened.error().empty() && (opened.status().st_mode & S_IWOTH) == 0;
  if (!own || opened.size() > kMostBytes) return nullptr;
  return Json::parse(opened.Read(0, kMostBytes));
}

}  // namespace

std::vector<Gate> ReadGates(const std::string& directory, double now) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (entry.path().extension() == ".json") files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) return {};
  std::vector<Gate> gates;
  for (const std::string& file : files) {
    try {
      const Json said = DocumentIn(file, status.st_uid);
      Gate gate = GateIn(file, said);
      const bool lives = said.at("running") == true && std::abs(now - gate.time) < kOld;
      if (lives && said.at("schema") == 1) gates.push_back(std::move(gate));
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
