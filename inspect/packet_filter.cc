#include "inspect/packet_filter.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>

namespace inspect {
namespace {

using nlohmann::json;

// The addresses that other machines can have: neither 0.x and 127.x, nor 224.x and above.
const AddressRanges kOthers = {{0x01000000, 0x7effffff}, {0x80000000, 0xdfffffff}};

// More addresses than these in the rules are somebody's list of bad ones: it would take too long.
constexpr std::size_t kMostBounds = 4000;
constexpr int kDeepest = 16;

// An address, {"prefix": {"addr", "len"}} or {"range": [FIRST, LAST]} of addresses.
std::optional<AddressRange> RangeOf(const json& value) {
  if (value.is_string()) return ReadRange(value);
  if (!value.is_object()) return std::nullopt;
  if (value.contains("prefix")) {
    const json& prefix = value["prefix"];
    // A line for the log has a prefix, too, which is a text.
    if (!prefix.is_object() || !prefix.at("addr").is_string()) return std::nullopt;
    return ReadRange(prefix["addr"].get<std::string>() + "/" +
                     std::to_string(prefix["len"].get<int>()));
  }
  if (!value.contains("range") || !value["range"][0].is_string()) return std::nullopt;
  return ReadRange(value["range"][0].get<std::string>() + "-" +
                   value["range"][1].get<std::string>());
}

// Whether something holds for a packet.
enum class Truth { kNo, kYes, kUnknown };

Truth Not(Truth truth) {
  if (truth == Truth::kUnknown) return truth;
  return truth == Truth::kYes ? Truth::kNo : Truth::kYes;
}

// What may become of a packet: a set of these.
enum Fate : unsigned { kAccept = 1, kDrop = 2, kGoesOn = 4, kLeavesChain = 8 };

class Rules {
  using ChainKey = std::tuple<std::string, std::string, std::string>;  // family, table, chain

 public:
  Rules(const json& document, int port) : port_(port) {
    for (const json& entry : document.at("nftables").get_ref<const json::array_t&>()) {
      if (entry.contains("chain")) AddChain(entry["chain"]);
      if (entry.contains("set")) sets_[Key(entry["set"], "name")] = entry["set"];
      if (entry.contains("rule")) {
        rules_[Key(entry["rule"], "chain")].push_back(&entry["rule"]["expr"]);
      }
      CollectBounds(entry);
    }
  }

  // Where ranges of addresses that are treated alike begin.
  const std::set<std::uint32_t>& bounds() const { return bounds_; }

  // The base chain that drops the source for which FateOf() has last said kDrop.
  std::string DroppedBy() const {
    const auto& [family, table, chain] = dropped_by_;
    return "chain " + chain + " of table " + family + " " + table;
  }

  // What becomes of a packet from `source`: kAccept, kDrop, or both where that is not known.
  unsigned FateOf(std::uint32_t source) {
    source_ = source;
    unsigned fate = kAccept;
    for (const auto& [key, drops] : bases_) {
      unsigned own = Walk(key, 0);
      if ((own & (kGoesOn | kLeavesChain)) != 0) own |= drops ? kDrop : kAccept;
      if ((own & kAccept) == 0) {
        dropped_by_ = key;
        return kDrop;
      }
      fate |= own & kDrop;
    }
    return fate;
  }

 private:
  static ChainKey Key(const json& entry, const char* name) {
    return {entry.at("family"), entry.at("table"), entry.at(name)};
  }

  void AddChain(const json& chain) {
    const std::string hook = chain.value("hook", "");
    const std::string family = chain.at("family");
    const bool seen = (family == "ip" || family == "inet") && chain.value("type", "") == "filter" &&
                      (hook == "input" || hook == "prerouting");
    const bool elsewhere = family == "netdev" || family == "bridge";
    if (seen) bases_.emplace_back(Key(chain, "name"), chain.value("policy", "accept") == "drop");
    // What such a chain does with packets of other machines is not looked at.
    if (elsewhere && !hook.empty()) bases_.emplace_back(ChainKey(), false);
  }

  void CollectBounds(const json& value) {
    if (const auto range = RangeOf(value)) {
      bounds_.insert(range->first);
      if (range->last != ~std::uint32_t{0}) bounds_.insert(range->last + 1);
    } else if (value.is_structured()) {
      for (const json& part : value) CollectBounds(part);
    }
  }

  unsigned Walk(const ChainKey& chain, int depth) {
    if (std::get<0>(chain).empty() || depth > kDeepest) return kAccept | kDrop;
    unsigned fates = 0;
    for (const json* rule : rules_[chain]) {
      Truth matches = Truth::kYes;
      const unsigned fate = FateBy(*rule, chain, depth, matches);
      if (matches == Truth::kNo) continue;
      fates |= fate & (kAccept | kDrop | kLeavesChain);
      if (matches == Truth::kYes && (fate & kGoesOn) == 0) return fates;
    }
    return fates | kGoesOn;
  }

  // What a rule does with a packet that it matches. `matches`, kYes before, gets whether it does.
  unsigned FateBy(const json& rule, const ChainKey& chain, int depth, Truth& matches) {
    for (const json& part : rule) {
      const std::string name = part.is_object() && !part.empty() ? part.begin().key() : "";
      const json& value = name.empty() ? part : part.begin().value();
      if (name == "accept" || name == "drop" || name == "reject" || name == "return" ||
          name == "jump" || name == "goto") {
        return FateOfVerdict(part, chain, depth);
      }
      if (name == "vmap") return FateOfMap(value, chain, depth);
      const Truth own = Matches(name, value, chain);
      if (own == Truth::kNo) {
        matches = own;
        return kGoesOn;
      }
      if (own == Truth::kUnknown) matches = own;
    }
    return kGoesOn;
  }

  unsigned FateOfVerdict(const json& verdict, const ChainKey& chain, int depth) {
    const std::string name = verdict.begin().key();
    if (name == "accept") return kAccept;
    if (name == "drop" || name == "reject") return kDrop;
    if (name == "return") return kLeavesChain;
    if (name != "jump" && name != "goto") return kGoesOn;
    const auto& [family, table, unused] = chain;
    const std::string target = verdict.begin().value().at("target");
    const unsigned fate = Walk({family, table, target}, depth + 1);
    if ((fate & (kGoesOn | kLeavesChain)) == 0) return fate;
    return (fate & (kAccept | kDrop)) | (name == "jump" ? kGoesOn : kLeavesChain);
  }

  unsigned FateOfMap(const json& map, const ChainKey& chain, int depth) {
    unsigned possible = kGoesOn;
    if (!map.at("data").is_object() || !map["data"].contains("set")) {
      return kAccept | kDrop | kGoesOn;
    }
    for (const json& entry : map["data"]["set"]) {
      const Truth own = IsIn(map.at("key"), entry.at(0), chain);
      if (own == Truth::kNo) continue;
      const unsigned fate = FateOfVerdict(entry.at(1), chain, depth);
      if (own == Truth::kYes) return fate;
      possible |= fate;
    }
    return possible;
  }

  Truth Matches(const std::string& name, const json& value, const ChainKey& chain) {
    if (name == "match") {
      const Truth truth = IsIn(value.at("left"), value.at("right"), chain);
      // A match on another protocol's field does not hold for this packet either way.
      if (IsForeign(value["left"])) return Truth::kNo;
      return value.at("op") == "!=" ? Not(truth) : truth;
    }
    // Limits, which are not reached: "over 100" does not hold.
    if (name == "limit" || name == "ct count") {
      return value.is_object() && value.value("inv", false) ? Truth::kNo : Truth::kYes;
    }
    if (name == "set" || name == "meter") {
      const json statements = name == "set" ? value.value("stmt", json::array())
                                            : json::array({value.value("stmt", json::object())});
      Truth truth = Truth::kYes;
      for (const json& statement : statements) {
        if (statement.is_object() && !statement.empty() &&
            Matches(statement.begin().key(), statement.begin().value(), chain) == Truth::kNo) {
          truth = Truth::kNo;
        }
      }
      return truth;
    }
    static const std::set<std::string> harmless = {"counter", "log", "mangle", "notrack", "quota"};
    return harmless.contains(name) ? Truth::kYes : Truth::kUnknown;
  }

  static bool IsForeign(const json& left) {
    if (!left.is_object() || !left.contains("payload")) return false;
    const std::string protocol = left["payload"].value("protocol", "");
    static const std::set<std::string> ours = {"", "ip", "tcp", "th", "ether", "vlan"};
    return !ours.contains(protocol);
  }

  // Whether what `left` stands for is `right`, or is in it.
  Truth IsIn(const json& left, const json& right, const ChainKey& chain) {
    if (right.is_object() && right.contains("set")) return IsInAny(left, right["set"], chain);
    if (right.is_array()) return IsInAny(left, right, chain);
    if (right.is_object() && right.contains("elem")) {
      return IsIn(left, right["elem"].at("val"), chain);
    }
    if (right.is_string() && right.get<std::string>().starts_with('@')) {
      const auto& [family, table, unused] = chain;
      const auto set = sets_.find({family, table, right.get<std::string>().substr(1)});
      if (set == sets_.end()) return Truth::kUnknown;
      return IsInAny(left, set->second.value("elem", json::array()), chain);
    }
    return Is(left, right);
  }

  Truth IsInAny(const json& left, const json& all, const ChainKey& chain) {
    Truth truth = Truth::kNo;
    for (const json& one : all) {
      const Truth own = IsIn(left, one, chain);
      if (own == Truth::kYes) return own;
      if (own == Truth::kUnknown) truth = own;
    }
    return truth;
  }

  Truth Is(const json& left, const json& right) const {
    if (!left.is_object() || left.empty()) return Truth::kUnknown;
    const std::string kind = left.begin().key();
    const json& of = left.begin().value();
    if (!of.is_object()) return Truth::kUnknown;
    if (kind == "meta") return IsMeta(of.value("key", ""), right);
    if (kind == "ct" && of.value("key", "") == "state") return IsText("new", right);
    if (kind != "payload") return Truth::kUnknown;
    const std::string field = of.value("protocol", "") + " " + of.value("field", "");
    if (field == "ip protocol") return IsText("tcp", right);
    if (field == "tcp dport" || field == "th dport") return IsPort(right);
    const auto range = field == "ip saddr" ? RangeOf(right) : std::nullopt;
    if (!range) return Truth::kUnknown;
    return range->first <= source_ && source_ <= range->last ? Truth::kYes : Truth::kNo;
  }

  static Truth IsMeta(const std::string& key, const json& right) {
    if (key == "nfproto") return IsText("ipv4", right);
    if (key == "l4proto") return IsText("tcp", right);
    if (key == "protocol") return IsText("ip", right);
    // Packets of other machines come in by another interface, and nobody knows by which.
    if ((key == "iifname" || key == "iif") && right == "lo") return Truth::kNo;
    return Truth::kUnknown;
  }

  static Truth IsText(const char* text, const json& right) {
    if (!right.is_string()) return Truth::kUnknown;
    return right == text ? Truth::kYes : Truth::kNo;
  }

  Truth IsPort(const json& right) const {
    const auto is = [](bool truth) { return truth ? Truth::kYes : Truth::kNo; };
    if (right.is_number_integer()) return is(right.get<int>() == port_);
    if (!right.is_object() || !right.contains("range")) return Truth::kUnknown;
    const json& range = right["range"];
    if (!range.at(0).is_number_integer()) return Truth::kUnknown;
    return is(range[0].get<int>() <= port_ && port_ <= range.at(1).get<int>());
  }

  int port_;
  std::uint32_t source_ = 0;
  ChainKey dropped_by_;
  std::vector<std::pair<ChainKey, bool>> bases_;  // and whether what reaches their ends is dropped
  std::map<ChainKey, std::vector<const json*>> rules_;
  std::map<ChainKey, json> sets_;
  std::set<std::uint32_t> bounds_;
};

}  // namespace

std::optional<Reachability> Judge(const std::string& rules, int port) {
  try {
    const json document = json::parse(rules);
    Rules judged(document, port);
    std::set<std::uint32_t> bounds = judged.bounds();
    if (bounds.size() > kMostBounds) return std::nullopt;
    Reachability found;
    for (const AddressRange& others : kOthers) {
      for (std::uint32_t first = others.first; first <= others.last;) {
        const auto next = bounds.upper_bound(first);
        const std::uint32_t last =
            next == bounds.end() ? others.last : std::min(others.last, *next - 1);
        const unsigned fate = judged.FateOf(first);
        if (fate == kAccept) found.accepted.push_back({first, last});
        if (fate == kDrop) {
          found.dropped.push_back({first, last});
          found.dropped_by[judged.DroppedBy()].push_back({first, last});
        }
        first = last + 1;
      }
    }
    found.accepted = Merged(found.accepted);
    found.dropped = Merged(found.dropped);
    return found;
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

}  // namespace inspect
