#include "inspect/firewall.h"

#include <unistd.h>

#include <algorithm>
#include <optional>
#include <regex>
#include <sstream>
#include <string>

#include "inspect/access.h"
#include "inspect/file.h"
#include "inspect/packet_filter.h"
#include "inspect/probe.h"

namespace inspect {
namespace {

// Whoever lets in half of all addresses, or more, lets in everybody.
constexpr std::uint64_t kEverybody = std::uint64_t{1} << 31;

// Networks that are nobody's: the shipped file has one of them until it is filled in.
const AddressRanges kExamples = {
    {0xc0000200, 0xc00002ff}, {0xc6336400, 0xc63364ff}, {0xcb007100, 0xcb0071ff}};

std::string RulesFile(const Site& site) {
  return site.others + "/jobmill.nft";
}

class FirewallCheck {
 public:
  FirewallCheck(const Site& site, Findings& findings)
      : port_("port " + std::to_string(site.options.listen_port)),
        file_(RulesFile(site)),
        text_(ReadFile(file_)),
        masters_(MastersIn(text_.value_or(""))),
        findings_(findings) {}

  void All(const Reachability& found) {
    // What is let in from elsewhere, for example because the table is not loaded or names another
    // port.
    const AddressRanges others = Minus(found.accepted, masters_);
    if (Size(others) >= kEverybody) {
      Add("host.open", Severity::kWarning, "", "the packet filter lets everybody reach " + port_,
          "whoever reaches it can claim to be any user",
          text_ ? "name the port in " + file_ + ", and load it with nft --file"
                : "load a packet filter; docs/security.md has one");
    } else if (!masters_.empty() && !others.empty()) {
      Add("host.other-networks", Severity::kWarning, file_,
          "the packet filter lets " + Text(others) + " reach " + port_ +
              ", and this file does not name them",
          "whoever reaches it can claim to be any user",
          "load this file with nft --file, or name them in it");
    }
    if (masters_.empty()) {
      if (found.accepted.empty() && Size(found.dropped) >= kEverybody) {
        AddClosed("everybody", found, found.dropped);
      }
      return;
    }
    const AddressRanges refused = Common(masters_, found.dropped);
    if (!refused.empty()) AddClosed(Text(refused) + ", which this file names,", found, refused);
    if (Minus(masters_, kExamples).empty()) {
      Add("host.example-network", Severity::kWarning, file_,
          "the only masters that it names are " + Text(masters_) + ", the network of an example",
          "no master gets through", "name the networks of the masters in it, and load it");
    }
  }

 private:
  void Add(const char* id, Severity severity, const std::string& file, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back({id, severity, file, 0, what, consequence, remedy});
  }

  void AddClosed(const std::string& whom, const Reachability& found, const AddressRanges& refused) {
    std::string chains;
    for (const auto& [chain, ranges] : found.dropped_by) {
      if (Common(ranges, refused).empty()) continue;
      chains.append(chains.empty() ? "" : " and ").append(chain);
    }
    Add("host.closed", Severity::kError, masters_.empty() ? "" : file_,
        "the packet filter keeps " + whom + " from " + port_ + ", by " + chains,
        "no master of theirs gets through",
        masters_.empty() ? "let the networks of the masters in there"
                         : "load this file with nft --file, or let them in there");
  }

  std::string port_;
  std::string file_;
  std::optional<std::string> text_;
  AddressRanges masters_;
  Findings& findings_;
};

Finding Unchecked(const Site& site, const std::string& why, const std::string& remedy) {
  return {"host.firewall-unchecked",
          Severity::kUnchecked,
          "",
          0,
          why,
          "everybody may reach port " + std::to_string(site.options.listen_port),
          remedy};
}

}  // namespace

AddressRanges MastersIn(const std::string& text) {
  // Line by line: std::regex takes stack for each character that a repetition matches.
  const std::regex define(R"(\s*define\s+masters\s*=)");
  std::string list;
  for (const std::string_view line : Lines(text)) {
    const std::string plain(line.substr(0, line.find('#')));
    std::smatch found;
    if (list.empty() &&
        !std::regex_search(plain, found, define, std::regex_constants::match_continuous)) {
      continue;
    }
    list += (list.empty() ? found.suffix().str() : plain) + ' ';
    const bool begun = list.find_first_not_of(" \t\r") != std::string::npos;
    if (begun && (list.find('{') == std::string::npos || plain.find('}') != std::string::npos)) {
      break;
    }
  }
  const std::size_t open = list.find('{');
  if (open != std::string::npos) {
    const std::size_t close = list.find('}');
    if (close == std::string::npos) return {};
    list = list.substr(open + 1, close - open - 1);
  }
  std::ranges::replace_if(
      list, [](char c) { return c == ',' || c == ';'; }, ' ');
  std::istringstream words(list);
  AddressRanges masters;
  for (std::string word; words >> word;) {
    const auto range = ReadRange(word);
    if (!range) return {};
    masters.push_back(*range);
  }
  return Merged(std::move(masters));
}

Findings JudgeFirewall(const Site& site, const std::string& rules) {
  Findings findings;
  const auto found = Judge(rules, site.options.listen_port);
  if (found) {
    FirewallCheck(site, findings).All(*found);
  } else {
    findings.push_back(
        Unchecked(site, "the rules of the packet filter are not understood", "nft list ruleset"));
  }
  return findings;
}

Findings CheckFirewall(const Site& site) {
  const auto programs = RegularFiles(InDirectories("/usr/sbin:/sbin:/usr/bin", "nft"));
  if (programs.empty()) {
    return {Unchecked(site, "there is no nft, and other packet filters are not looked at",
                      "see which networks reach it")};
  }
  if (geteuid() != 0) {
    return {Unchecked(site, "the packet filter can be read by root alone", "check as root")};
  }
  const CommandAnswer rules = RunCommand({programs[0], "-j", "list", "ruleset"})
                                  .value_or(CommandAnswer{.status = -1, .output = ""});
  if (rules.status != 0) {
    return {Unchecked(site, "nft does not list its rules", "try nft list ruleset")};
  }
  return JudgeFirewall(site, rules.output);
}

}  // namespace inspect
