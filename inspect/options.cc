#include "inspect/options.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>

#include "base/number.h"
#include "inspect/file.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kHighestPort = 65535;

struct Range {
  std::int64_t first = 0;
  std::int64_t last = -1;

  bool Has(std::int64_t port) const { return first <= port && port <= last; }
  bool Overlaps(const Range& other) const { return first <= other.last && other.first <= last; }
};

std::string Text(const Range& range) {
  return std::to_string(range.first) + " to " + std::to_string(range.last);
}

Range CommsPorts(const Options& options) {
  return {.first = options.comms_base_port,
          .last = std::int64_t{options.comms_base_port} + options.comms_ports - 1};
}

bool TakesValue(char letter) {
  return std::string_view("pton").find(letter) != std::string_view::npos;
}

// The letter of an option, in lower case; a zero byte for what is none.
char OptionOf(const std::string& word) {
  if (word.size() != 2 || word[0] != '-') return '\0';
  if (word == "-s") return 's';
  const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(word[1])));
  return TakesValue(letter) || std::string_view("ulv").find(letter) != std::string_view::npos
             ? letter
             : '\0';
}

// The kernel's list of ports that it hands out to nobody: "8080,9000-9100".
std::vector<Range> Reserved(const std::string& text) {
  std::vector<Range> ranges;
  for (const char* at = text.c_str(); std::isdigit(static_cast<unsigned char>(*at)) != 0;) {
    char* end = nullptr;
    Range range;
    range.first = range.last = strtol(at, &end, 10);
    if (*end == '-') range.last = strtol(end + 1, &end, 10);
    ranges.push_back(range);
    at = *end == ',' ? end + 1 : end;
  }
  return ranges;
}

class OptionsCheck {
 public:
  OptionsCheck(const Site& site, const std::string& kernel, Findings& findings)
      : site_(site), options_(site.options), kernel_(kernel), findings_(findings) {}

  void All() {
    if (!CanBeRead()) return;
    if (site_.words.empty()) {
      Add("options.none", Severity::kError, "there are none" + SetInstead(),
          "the daemon prints its usage and ends", "set OPTIONS=\"-p PORT -s SCRIPT\"");
      return;
    }
    CheckWriters();
    CheckWords();
    if (options_.version) {
      Add("options.version", Severity::kError, "-v is among the options",
          "the daemon prints its version and ends", "leave it out");
      return;
    }
    CheckBound('t', options_.start_timeout);
    CheckBound('o', options_.comms_base_port);
    CheckBound('n', options_.comms_ports);
    CheckAccount();
    CheckScript();
    CheckListenPort();
    CheckCommsPorts();
    CheckOtherDaemons();
  }

 private:
  void Add(const char* id, Severity severity, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back({id, severity, site_.configuration, site_.line, what, consequence, remedy});
  }

  bool CanBeRead() {
    if (site_.error == 0) return true;
    if (site_.error == EACCES) {
      Add("options.unchecked", Severity::kUnchecked, "not checked: needs root",
          "nothing is known about the options of this daemon", "run jobmillctl as root");
    } else {
      Add("options.unreadable", Severity::kError,
          std::string("cannot be read: ") + strerror(site_.error), "its service does not start",
          "write OPTIONS=\"-p PORT -s SCRIPT\" into it");
    }
    return false;
  }

  // A variable that may be meant for OPTIONS: a byte order mark, a word or other letters make it
  // another one.
  std::string SetInstead() const {
    for (const auto& [name, assignment] :
         ReadAssignments(ReadFile(site_.configuration).value_or(""))) {
      std::string upper = name;
      std::ranges::transform(upper, upper.begin(), [](unsigned char c) { return std::toupper(c); });
      if (name != "OPTIONS" && upper.find("OPTION") != std::string::npos) {
        return ": line " + std::to_string(assignment.line) + " sets '" + name + "', not OPTIONS";
      }
    }
    return "";
  }

  void CheckWriters() {
    if (site_.configuration.empty()) return;
    const std::string how = WritableBy(RealName(site_.configuration), false);
    if (how.empty()) return;
    Add("options.writable", Severity::kError, "can be changed by others than root: " + how,
        "whoever can write it has root start what they like",
        "give it to root, with the mode 0644");
  }

  // Takes options and their values out of the words as the daemon does, which ignores the rest.
  void CheckWords() {
    std::map<char, std::string> seen;
    std::set<std::size_t> values;
    std::string ignored;
    for (std::size_t i = 0; i < site_.words.size(); ++i) {
      const std::string& word = site_.words[i];
      const char option = OptionOf(word);
      if (option == 'v') return;
      if (option == '\0') {
        if (!values.contains(i)) ignored += (ignored.empty() ? "'" : ", '") + word + "'";
        continue;
      }
      if (seen.contains(option)) {
        Add("options.repeated", Severity::kWarning, word + " is given more than once",
            "the last one counts", "leave the others out");
      }
      seen[option] = word;
      if (option != 's' && !TakesValue(option)) continue;
      values.insert(i + 1);
      CheckValue(option, word, i + 1 < site_.words.size() ? &site_.words[i + 1] : nullptr);
    }
    if (ignored.empty()) return;
    Add("options.ignored", Severity::kWarning, "are no options: " + ignored,
        "the daemon passes over them without a word", "correct or remove them");
  }

  void CheckValue(char option, const std::string& word, const std::string* value) {
    if (value == nullptr || OptionOf(*value) != '\0') {
      Add("options.no-value", Severity::kError, word + " has no value",
          value == nullptr ? "the option itself is taken as its value"
                           : "the next option, " + *value + ", is taken as its value",
          "write the value after it");
      return;
    }
    if (option == 's') return;
    const auto number = static_cast<std::int32_t>(NumberIn(value->c_str()));
    if (std::to_string(number) != *value) {
      Add("options.not-a-number", Severity::kError,
          "the value of " + word + " is no number: '" + *value + "'",
          "the daemon reads it as " + std::to_string(number), "write digits only");
    }
    numbers_[option] = number;
  }

  void CheckBound(char option, std::int32_t taken) {
    const auto given = numbers_.find(option);
    if (given == numbers_.end() || given->second >= taken) return;
    Add("options.raised", Severity::kWarning,
        std::string("the value of -") + option +
            " is below its bound: " + std::to_string(given->second),
        "the daemon takes " + std::to_string(taken), "write what is meant");
  }

  void CheckAccount() {
    if (options_.run_as_root || (site_.configuration.empty() && geteuid() != 0)) return;
    Add("options.as-root", Severity::kError, "-u is given to a daemon of root",
        "everybody who reaches the port runs as root, and nobody is looked up", "leave -u out");
  }

  void CheckScript() {
    if (site_.script.starts_with('/')) return;
    Add("options.relative-script", Severity::kWarning,
        "the script has no absolute path: " + site_.script,
        "it is looked for in the daemon's working directory, here " + site_.directory,
        "give -s the path from / on");
  }

  void CheckListenPort() {
    const std::int64_t port = options_.listen_port;
    if (port == 0) {
      Add("options.no-port", Severity::kError, "there is no port to listen on",
          "the daemon says so and ends", "add -p PORT");
    } else if (port < 0 || port > kHighestPort) {
      Add("options.no-such-port", Severity::kError,
          "there is no port " + std::to_string(port) + " to listen on",
          "the daemon says that the port is taken, and ends", "give -p a port from 1 to 65535");
    } else if (const std::int64_t found = Ephemeral({.first = port, .last = port}); found > 0) {
      Add("options.ephemeral-port", Severity::kWarning,
          "the port " + std::to_string(found) + " is one that the kernel hands out",
          "a connection of any program may have it when the daemon starts",
          "take a port outside, or add it to net.ipv4.ip_local_reserved_ports");
    }
  }

  void CheckCommsPorts() {
    const Range comms = CommsPorts(options_);
    if (comms.last > kHighestPort) {
      Add("options.comms-too-high", Severity::kError,
          "comms ports go from " + Text(comms) + ", and 65535 is the highest there is",
          "runs that are given one above never connect to their simulator", "lower -o or -n");
    }
    if (const std::int64_t port = Ephemeral(comms); port > 0) {
      Add("options.ephemeral-comms", Severity::kWarning,
          "the kernel hands out comms ports, " + std::to_string(port) + " for one",
          "a connection of any program may have the port of a simulator, whose run then fails",
          "move them with -o, or add them to net.ipv4.ip_local_reserved_ports");
    }
    if (comms.Has(options_.listen_port)) {
      Add("options.comms-on-port", Severity::kError,
          "the port " + std::to_string(options_.listen_port) +
              " on which masters connect is a comms port as well",
          "the run that is given it finds it taken", "move the comms ports with -o");
    }
  }

  // The first of these ports that the kernel may give to any connection; 0 when there is none.
  std::int64_t Ephemeral(const Range& ports) const {
    const std::string text = ReadFile(kernel_ + "/ip_local_port_range").value_or("");
    char* end = nullptr;
    Range handed_out;
    handed_out.first = strtol(text.c_str(), &end, 10);
    handed_out.last = strtol(end, nullptr, 10);
    const auto reserved = Reserved(ReadFile(kernel_ + "/ip_local_reserved_ports").value_or(""));
    for (std::int64_t port = std::max(ports.first, handed_out.first);
         port <= std::min(ports.last, handed_out.last); ++port) {
      const auto has = [port](const Range& range) { return range.Has(port); };
      if (std::ranges::none_of(reserved, has)) return port;
    }
    return 0;
  }

  void CheckOtherDaemons() {
    std::error_code error;
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(site_.others, error)) {
      if (entry.path().extension() == ".conf") names.insert(entry.path().stem());
    }
    names.erase(site_.name);
    for (const std::string& name : names) {
      const Site other = SiteOf(site_.others, name, site_.program);
      if (other.error == 0 && !other.words.empty()) CheckOther(other);
    }
  }

  void CheckOther(const Site& other) {
    const Range comms = CommsPorts(options_);
    const Range others = CommsPorts(other.options);
    if (options_.listen_port == other.options.listen_port) {
      Add("options.shared-port", Severity::kError,
          "the port " + std::to_string(options_.listen_port) + " is that of " +
              other.configuration + ", too",
          "only the daemon that starts first gets it", "give each daemon a port of its own");
    }
    if (comms.Overlaps(others)) {
      Add("options.shared-comms", Severity::kWarning,
          "the comms ports " + Text(comms) + " overlap with those of " + other.configuration +
              ", " + Text(others),
          "runs of both daemons may be given one port, and one of them fails",
          "give each daemon comms ports of its own");
    }
    if (comms.Has(other.options.listen_port) || others.Has(options_.listen_port)) {
      Add("options.comms-on-other-port", Severity::kWarning,
          "comms ports of one of this daemon and that of " + other.configuration +
              " hold the port of the other",
          "the run that is given it finds it taken", "move the comms ports with -o");
    }
  }

  const Site& site_;
  const Options& options_;
  const std::string& kernel_;
  Findings& findings_;
  std::map<char, std::int32_t> numbers_;  // the last value given for each option
};

}  // namespace

Findings CheckOptions(const Site& site, const std::string& kernel) {
  Findings findings;
  OptionsCheck(site, kernel, findings).All();
  return findings;
}

}  // namespace inspect
