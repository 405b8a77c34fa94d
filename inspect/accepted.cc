#include "inspect/accepted.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "inspect/file.h"

namespace inspect {

Accepted::Accepted(const std::string& directory) : file_(directory + "/check.accepted") {
  const auto text = ReadFile(file_);
  if (!text) {
    if (errno == ENOENT || errno == ENOTDIR) return;
    Add("accepted.unreadable", 0, std::string("cannot be read: ") + strerror(errno),
        "nothing is accepted", "make it a file that can be read, or remove it");
    return;
  }
  const std::string how = WritableBy(RealName(file_), geteuid() != 0);
  if (!how.empty()) {
    Add("accepted.writable", 0, "can be changed by others than root: " + how,
        "nothing is accepted: others could hide what is wrong",
        "give it to root, with the mode 0644");
    return;
  }
  Read(*text);
}

void Accepted::Add(const char* id, std::int64_t line, const std::string& what,
                   const std::string& consequence, const std::string& remedy) {
  wrong_.push_back({id, Severity::kWarning, file_, line, what, consequence, remedy});
}

void Accepted::Read(const std::string& text) {
  constexpr std::string_view blanks = " \t\r";
  std::int64_t number = 0;
  for (std::string_view line : Lines(text)) {
    ++number;
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    if (line.empty() || line.starts_with('#')) continue;
    const std::string_view entry = line.substr(0, line.find_first_of(blanks));
    line.remove_prefix(entry.size());
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    const std::size_t colon = entry.find(':');
    const std::string id(entry.substr(0, colon));
    if (!FindingIds().contains(id)) {
      Add("accepted.unknown", number, "accepts '" + id + "', which is no id of a finding",
          "nothing is accepted by it", "write the id as check prints it, in brackets");
    } else if (line.empty()) {
      Add("accepted.no-reason", number, "accepts " + id + " without a reason",
          "nothing is accepted by it", "write the reason after the id");
    } else {
      const std::string_view place = colon == std::string_view::npos ? "" : entry.substr(colon + 1);
      entries_.push_back({id, std::string(place), std::string(line), number, false});
    }
  }
}

std::vector<AcceptedFinding> Accepted::Take(Findings& findings) {
  std::vector<AcceptedFinding> taken;
  const auto accepts = [](const Entry& entry, const Finding& finding) {
    return entry.id == finding.id &&
           (entry.place.empty() || entry.place == finding.file ||
            entry.place == finding.file + ":" + std::to_string(finding.line));
  };
  std::erase_if(findings, [&](const Finding& finding) {
    bool accepted = false;
    for (Entry& entry : entries_) {
      if (!accepts(entry, finding)) continue;
      if (!accepted) taken.push_back({finding, entry.reason});
      accepted = entry.used = true;
    }
    return accepted;
  });
  return taken;
}

Findings Accepted::Wrong(const std::set<std::string>& areas) const {
  Findings findings = wrong_;
  for (const Entry& entry : entries_) {
    if (entry.used || !areas.contains(entry.id.substr(0, entry.id.find('.')))) continue;
    findings.push_back({"accepted.unused", Severity::kWarning, file_, entry.line,
                        "accepts " + entry.id + (entry.place.empty() ? "" : " of " + entry.place) +
                            ", which is not found",
                        "it would hide the next one of that kind", "remove the line"});
  }
  return findings;
}

}  // namespace inspect
