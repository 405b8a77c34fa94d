#include "inspect/user_file_check.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>

#include "inspect/account.h"
#include "inspect/file.h"
#include "inspect/user_file.h"

namespace inspect {
namespace {

constexpr std::size_t kLongestLine = 1023;
constexpr std::size_t kLongestName = sizeof(CVKUser::windows_name) - 1;
constexpr const char* kEverybody = "*";
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

std::string Counted(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string Quoted(const std::string& text) {
  return "'" + text + "'";
}

// The fields of a line; the third is all that follows the blank after the second.
std::array<std::string, 3> Fields(const std::string& line) {
  std::array<std::string, 3> fields;
  std::string_view rest = line.c_str();
  for (std::size_t i = 0; i < 2; ++i) {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    fields.at(i) = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(fields.at(i).size() + 1, rest.size()));
  }
  fields[2] = rest;
  return fields;
}

std::string Lower(std::string name) {
  std::ranges::transform(name, name.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return name;
}

class UserFileCheck {
 public:
  UserFileCheck(const Site& site, Findings& findings)
      : file_(site.ProgramDirectory()),
        not_linked_(site.NotLinked(".vk_corvane_users", "users")),
        findings_(findings) {}

  void All() {
    if (!CanBeRead()) return;
    CheckWriters();
    if (!not_linked_.empty()) {
      Add("users.not-linked", Severity::kWarning, 0, "is not " + not_linked_,
          "the daemon reads this file, and what is changed there has no effect",
          "put a link to that file in the place of the one beside the daemon's executable");
    }
    if (file_.lines().empty()) {
      Add("users.empty", Severity::kWarning, 0, "holds no record", "nobody is let in",
          "add users with 'jobmillctl users add'");
    }
    CheckBegin();
    for (std::size_t i = 0; i < file_.records().size(); ++i) {
      CheckNames(i);
      CheckAllow(i);
      CheckStars(i);
    }
    CheckEnds();
    CheckAccounts();
    CheckRepeated();
    CheckEndOfReading();
  }

 private:
  void Add(const char* id, Severity severity, std::size_t line, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back(
        {id, severity, file_.name(), static_cast<std::int64_t>(line), what, consequence, remedy});
  }

  const CVKUser& Record(std::size_t index) const { return *file_.records()[index]; }

  bool CanBeRead() {
    const std::string refused = "every master is told '" + file_.refusal() + "'";
    switch (file_.error()) {
      case 0:
        return true;
      case EACCES:
        Add("users.unchecked", Severity::kUnchecked, 0, "not checked: needs root",
            "nothing is known about who may run", "run jobmillctl as root");
        return false;
      case ENOENT:
        Add("users.missing", Severity::kError, 0, "is not there", refused,
            "create it empty, with 'install -m 600 /dev/null FILE'");
        return false;
      default:
        Add("users.unreadable", Severity::kError, 0,
            file_.error() == EINVAL ? "is no regular file"
                                    : std::string("cannot be read: ") + strerror(file_.error()),
            refused, "put a regular file in its place");
        return false;
    }
  }

  void CheckWriters() {
    const std::string how = WritableBy(file_.name(), false);
    if (how.empty()) return;
    Add("users.writable", Severity::kError, 0, "can be changed by others than root: " + how,
        "whoever can write it can run as anybody", "give it to root, with the mode 0600");
  }

  bool HasMark() const {
    return !file_.lines().empty() && file_.lines()[0].starts_with(kByteOrderMark);
  }

  void CheckBegin() {
    const std::string& first = file_.lines().empty() ? "" : file_.lines()[0];
    if (first.starts_with("\xff\xfe") || first.starts_with("\xfe\xff")) {
      Add("users.byte-order-mark", Severity::kError, 1,
          "is written in UTF-16, which begins with a byte order mark",
          "the daemon finds nobody in it", "save it as plain text, with 'iconv -f UTF-16'");
      return;
    }
    if (!HasMark()) return;
    Add("users.byte-order-mark", Severity::kError, 1, "begins with a byte order mark",
        "the mark belongs to the first name: the user of that line is not found",
        "save it as plain text, or take the mark away with "
        "'sed -i \"1s/^\\xEF\\xBB\\xBF//\" FILE'");
  }

  void CheckNames(std::size_t index) {
    const std::string name = Record(index).windows_name;
    if (name.starts_with('#')) {
      Add("users.comment", Severity::kWarning, index + 1,
          "is the record of a user named " + Quoted(name),
          "there are no comments; one without three words would end the file", "remove the line");
      return;
    }
    const std::string account = Record(index).linux_name;
    if ((name + account).find('\t') != std::string::npos) {
      Add("users.tab", Severity::kError, index + 1,
          "has a tab in the name " + Quoted(name.find('\t') != std::string::npos ? name : account),
          "a tab does not separate, it belongs to the name: nobody matches",
          "put blanks between the fields");
      return;
    }
    const std::string character = name == kEverybody ? "" : Unsendable(name);
    if (character.empty() || (index == 0 && HasMark())) return;
    Add("users.unsendable-name", Severity::kWarning, index + 1,
        "has " + character + " in the name " + Quoted(name),
        "no Windows user has such a name, so no master sends it",
        "write the name as Windows has it, without its domain");
  }

  void CheckAllow(std::size_t index) {
    const std::string& line = file_.lines()[index];
    std::string text = Fields(line)[2];
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
      text.pop_back();
    }
    const std::size_t first = text.find_first_not_of(" \t\v\f\r");
    const std::size_t digits = first == std::string::npos
                                   ? first
                                   : first + (text.find_first_of("+-", first) == first ? 1 : 0);
    if (digits >= text.size() || std::isdigit(static_cast<unsigned char>(text[digits])) == 0) {
      Add("users.no-number", Severity::kError, index + 1,
          "has no number in the third field of " + Quoted(Record(index).windows_name),
          "that counts as 0, so the user is denied", "write 1 to allow, 0 to deny");
    } else if (const std::size_t end = text.find_first_not_of("0123456789", digits);
               end != std::string::npos) {
      Add("users.ignored-text", Severity::kWarning, index + 1,
          "has more after the number: " + Quoted(text.substr(end)), "nothing reads that",
          "remove it");
    }
  }

  void CheckStars(std::size_t index) {
    const CVKUser& user = Record(index);
    if (user.allow == 0) return;
    const bool everybody = strcmp(user.windows_name, kEverybody) == 0;
    const bool same = strcmp(user.linux_name, kEverybody) == 0;
    const std::size_t line = index + 1;
    if (everybody && same) {
      Add("users.star-star", Severity::kError, line, "has two stars, allowed",
          "whoever reaches the port runs as any account, root's included: the name that is "
          "claimed is the account",
          "remove the line and list the users");
    } else if (everybody) {
      Add("users.star", Severity::kWarning, line,
          "lets in everybody who is not listed, as " + Quoted(user.linux_name),
          "whoever reaches the port has that account; who is denied only needs to claim another "
          "name",
          "list the users instead, if that is not meant");
    } else if (same) {
      Add("users.star-account", Severity::kWarning, line,
          "has a star as the account of " + Quoted(user.windows_name),
          "the account is the name in the letter case that the master sends, which may be another",
          "write the account's name");
    }
  }

  // Told once for the file: an editor that leaves such ends leaves them everywhere.
  void CheckEnds() {
    CheckEnd("users.carriage-return", "carriage returns at the ends of lines",
             "those are never part of a name, but a line of nothing else ends the file",
             "convert the file, with 'sed -i \"s/\\r$//\" FILE'",
             [](const std::string& line) { return line.ends_with('\r'); });
    CheckEnd("users.blanks", "blanks at the ends of lines",
             "a blank after the account stands for the number when that is forgotten, and denies",
             "remove them",
             [](const std::string& line) { return line.starts_with(' ') || line.ends_with(' '); });
  }

  void CheckEnd(const char* id, const std::string& what, const std::string& consequence,
                const std::string& remedy, bool (*bad)(const std::string& line)) {
    const auto end = file_.lines().begin() + static_cast<std::ptrdiff_t>(file_.records().size());
    const auto first = std::find_if(file_.lines().begin(), end, bad);
    if (first == end) return;
    const auto count = static_cast<std::size_t>(std::count_if(first, end, bad));
    Add(id, Severity::kWarning, static_cast<std::size_t>(first - file_.lines().begin()) + 1,
        "has " + what + ", " + Counted(count, "line") + " from this one on", consequence, remedy);
  }

  // The account that a record leads to when its name is sent as it is written; empty for a denial
  // and for "* *".
  std::string AccountOf(std::size_t index) const {
    const CVKUser& user = Record(index);
    if (user.allow == 0) return "";
    const bool same = strcmp(user.linux_name, kEverybody) == 0;
    const std::string account = same ? user.windows_name : user.linux_name;
    const bool odd = account.find('\t') != std::string::npos || user.windows_name[0] == '#';
    return odd || (same && account == kEverybody) ? "" : account;
  }

  void CheckAccounts() {
    std::set<std::string> names;
    for (std::size_t i = 0; i < file_.records().size(); ++i) names.insert(AccountOf(i));
    names.erase("");
    const auto accounts = FindAccounts(names);
    if (!accounts) {
      Add("users.accounts-unchecked", Severity::kUnchecked, 0,
          "not checked: the name services do not answer whether the accounts exist",
          "a run of an account that is not found is refused", "ask them with 'getent passwd NAME'");
      return;
    }
    for (std::size_t i = 0; i < file_.records().size(); ++i) {
      const std::string name = AccountOf(i);
      if (name.empty()) continue;
      const Account& account = accounts->at(name);
      if (!account.exists) {
        Add("users.no-account", Severity::kError, i + 1,
            "leads to the account " + Quoted(name) + ", which this machine does not know",
            "the master is told \"" + NoAccountText(name) + "\"",
            "correct the name or create the account");
      } else if (account.user == 0) {
        Add("users.root", Severity::kError, i + 1,
            Quoted(Record(i).windows_name) + " runs as root, by the account " + Quoted(name),
            "whoever claims that name owns this machine", "name an account without root's rights");
      }
    }
  }

  // Of equal names the first counts, of the stars the last.
  void CheckRepeated() {
    std::map<std::string, std::size_t> counting;
    for (std::size_t i = 0; i < file_.records().size(); ++i) {
      const std::string name = Lower(Record(i).windows_name);
      const auto [entry, fresh] = counting.try_emplace(name, i);
      if (fresh) continue;
      if (name != kEverybody) {
        AddRepeated(i, entry->second);
      } else {
        AddRepeated(entry->second, i);
        entry->second = i;
      }
    }
  }

  void AddRepeated(std::size_t index, std::size_t counting) {
    const std::string name = Quoted(Record(index).windows_name);
    const std::string instead = "line " + std::to_string(counting + 1);
    if (Record(index).allow == 0 && Record(counting).allow != 0) {
      AddVoidDenial(index, instead + " lets " + name +
                               " in: of equal names the first line counts, of '*' the last");
    } else {
      Add("users.repeated", Severity::kWarning, index + 1,
          "is never looked at: " + instead + " is of " + name + " too",
          "of equal names the first line counts, of '*' the last", "remove one of the two lines");
    }
  }

  void AddVoidDenial(std::size_t index, const std::string& why) {
    Add("users.void-denial", Severity::kError, index + 1, "denies in vain", why,
        "remove the line that lets the user in, or put this one in front");
  }

  // The line that ended the reading, if one did, and what follows it.
  void CheckEndOfReading() {
    const std::size_t index = file_.records().size();
    if (index >= file_.lines().size()) return;
    const std::string& line = file_.lines()[index];
    std::size_t after = 0;
    for (std::size_t i = index + 1; i < file_.lines().size(); ++i) {
      if (IsBlank(file_.lines()[i])) continue;
      ++after;
      CheckLostDenial(i);
    }
    const std::string lost = "it ends the file: " + Counted(after, "line") + " after it " +
                             (after == 1 ? "is" : "are") + " never read";
    const Severity severity = after == 0 && IsBlank(line) ? Severity::kWarning : Severity::kError;
    const auto fields = Fields(line);
    if (IsBlank(line)) {
      Add("users.empty-line", severity, index + 1, "is empty",
          after > 0 ? lost : "it ends the file: a record that is added after it is never read",
          "remove the line");
    } else if (line.size() > kLongestLine) {
      Add("users.long-line", severity, index + 1,
          "has more than " + std::to_string(kLongestLine) + " characters", lost,
          "shorten the line");
    } else if (fields[0].size() > kLongestName || fields[1].size() > kLongestName) {
      Add("users.long-name", severity, index + 1,
          "has a name of more than " + std::to_string(kLongestName) + " characters", lost,
          "shorten the name");
    } else {
      const bool tab = line.find('\t') != std::string::npos;
      Add("users.incomplete-line", severity, index + 1,
          std::string("has not three fields separated by blanks") +
              (tab ? ": a tab does not separate, and it has one" : ""),
          lost, "write Windows user, Linux account, and 1 or 0");
    }
  }

  void CheckLostDenial(std::size_t index) {
    const auto fields = Fields(file_.lines()[index]);
    const auto deciding = file_.Deciding(fields[0]);
    if (fields[2].empty() || strtol(fields[2].c_str(), nullptr, 10) != 0 || !deciding) return;
    if (Record(*deciding).allow == 0) return;
    AddVoidDenial(index, "it is not read, and line " + std::to_string(*deciding + 1) + " lets " +
                             Quoted(fields[0]) + " in");
  }

  UserFile file_;
  std::string not_linked_;
  Findings& findings_;
};

}  // namespace

Findings CheckUserFile(const Site& site) {
  Findings findings;
  // With -u the daemon does not read it.
  if (site.options.run_as_root) UserFileCheck(site, findings).All();
  return findings;
}

}  // namespace inspect
