#include <errno.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "inspect/account.h"
#include "inspect/file.h"
#include "inspect/user_file.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/site_options.h"
#include "tools/jobmillctl/user_edit.h"

namespace jobmillctl {
namespace {

using inspect::UserFile;

constexpr std::size_t kLongestName = sizeof(CVKUser::windows_name) - 1;

struct Given {
  std::string program;
  std::string name;
  std::string account;

  std::string Directory() const {
    return std::filesystem::path(DaemonProgram(program)).parent_path();
  }
};

bool IsNamed(const CVKUser& user, const std::string& name) {
  return strcasecmp(user.windows_name, name.c_str()) == 0;
}

// The account of a record for a master that sends `name`.
std::string AccountOf(const CVKUser& user, const std::string& name) {
  return strcmp(user.linux_name, "*") == 0 ? name : user.linux_name;
}

inspect::Account Find(const std::string& account) {
  const auto accounts = inspect::FindAccounts({account});
  if (!accounts) throw Failed("the name services do not answer about the account " + account);
  return accounts->at(account);
}

UserFile Read(const std::string& directory) {
  UserFile file(directory);
  if (file.error() == EACCES) throw Failed("only root can read " + file.name());
  return file;
}

// The index of the record of this name that counts: the first one, but of several "*" the last.
std::optional<std::size_t> Own(const UserFile& file, const std::string& name) {
  std::optional<std::size_t> own;
  for (std::size_t i = 0; i < file.records().size(); ++i) {
    if (IsNamed(*file.records()[i], name) && (!own || name == "*")) own = i;
  }
  return own;
}

// Says when lines are not read, because the first of them ends the file.
void PrintEndOfReading(const UserFile& file) {
  const std::size_t records = file.records().size();
  const auto begin = file.lines().begin() + static_cast<std::ptrdiff_t>(records);
  if (std::all_of(begin, file.lines().end(), inspect::IsBlank)) return;
  Print(fmt::format("{}:{}: ends the file; neither it nor what follows is read", file.name(),
                    records + 1));
}

int Refused(const std::string& name, const std::string& text) {
  Print(fmt::format("{}: refused with \"{}\"", name, text));
  return kNotGood;
}

// What a master of this name gets, and the line that decides that.
int Tell(const UserFile& file, const std::string& name) {
  if (file.error() != 0) return Refused(name, file.refusal());
  const auto own = Own(file, name);
  const auto deciding = own ? own : file.Deciding(name);
  if (!deciding) {
    Refused(name, NotFoundText(name));
    Print(fmt::format("{}: has no line that is read of this name, and none of '*'", file.name()));
    PrintEndOfReading(file);
    return kNotGood;
  }
  const CVKUser& user = *file.records()[*deciding];
  const std::string account = AccountOf(user, name);
  const std::string why =
      fmt::format("{}:{}: {}", file.name(), *deciding + 1, file.lines()[*deciding]);
  int status = kNotGood;
  if (user.allow == 0) {
    Refused(name, NotAllowedText(name));
  } else if (const inspect::Account found = Find(account); !found.exists) {
    Refused(name, NoAccountText(account));
  } else {
    Print(fmt::format("{}: runs as {} ({}:{})", name, account, found.user, found.group));
    status = kOk;
  }
  Print(why);
  return status;
}

int List(const Given& given) {
  const UserFile file = Read(given.Directory());
  if (file.error() != 0) return Refused("everybody", file.refusal());
  std::size_t width = std::strlen("WINDOWS USER");
  for (const CVKUser* user : file.records()) {
    width = std::max(width, inspect::Printable(user->windows_name).size());
  }
  fmt::print("{:<{}}  {:<7}  {:<6}  {}\n", "WINDOWS USER", width, "ALLOWED", "LINE",
             "LINUX ACCOUNT");
  for (std::size_t i = 0; i < file.records().size(); ++i) {
    const CVKUser& user = *file.records()[i];
    const std::size_t deciding = Own(file, user.windows_name).value_or(i);
    const std::string account = AccountOf(user, "(the name that is sent)");
    fmt::print("{:<{}}  {:<7}  {:<6}  {}{}\n", inspect::Printable(user.windows_name), width,
               user.allow == 0 ? "no" : "yes", i + 1, inspect::Printable(account),
               deciding == i ? "" : fmt::format(" (does not count: line {} does)", deciding + 1));
  }
  PrintEndOfReading(file);
  return kOk;
}

int Test(const Given& given) {
  const UserFile file = Read(given.Directory());
  return Tell(file, given.name);
}

// Throws Failed when the daemon could not read a record of this name, or no master could match it.
void RequireName(const std::string& name, bool windows) {
  const std::string what = windows ? "the Windows user" : "the Linux account";
  if (name.empty()) throw Failed(what + " has no name");
  if (name == "*") return;
  if (name.size() > kLongestName) {
    throw Failed(fmt::format("the daemon reads no name of more than {} characters", kLongestName));
  }
  const std::string character = inspect::Unsendable(name);
  if (!character.empty()) {
    throw Failed(fmt::format("{} cannot have {} in its name", what, character));
  }
}

void RequireAccount(const std::string& name, const std::string& account) {
  if (account == "*" && name == "*") {
    throw Failed(
        "two stars would give every account, root's included, to whoever reaches the port");
  }
  const std::string meant = account == "*" ? name : account;
  const inspect::Account found = Find(meant);
  if (!found.exists) throw Failed(NoAccountText(meant));
  if (found.user == 0) throw Failed("whoever claims that name would be root");
}

// Makes the record of `name` say this, or adds one below the last record that is read. False when
// it says so already.
bool Put(const UserFile& file, std::vector<std::string>& lines, const std::string& name,
         const std::string& account, int allow) {
  const std::string line = fmt::format("{} {} {}", name, account, allow);
  const auto own = Own(file, name);
  if (!own) {
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(file.records().size()), line);
    return true;
  }
  const CVKUser& user = *file.records()[*own];
  if (account == user.linux_name && (allow != 0) == (user.allow != 0)) return false;
  lines[*own] = line;
  return true;
}

int TellAfterwards(const Given& given) {
  const UserFile file = Read(given.Directory());
  Print("From the next connection on:");
  Tell(file, given.name);
  PrintEndOfReading(file);
  return kOk;
}

int Add(const Given& given) {
  RequireName(given.name, true);
  RequireName(given.account, false);
  RequireAccount(given.name, given.account);
  EditUserFile(given.Directory(), [&given](const UserFile& file, std::vector<std::string>& lines) {
    return Put(file, lines, given.name, given.account, 1);
  });
  return TellAfterwards(given);
}

int Deny(const Given& given) {
  RequireName(given.name, true);
  EditUserFile(given.Directory(), [&given](const UserFile& file, std::vector<std::string>& lines) {
    const auto own = Own(file, given.name);
    return Put(file, lines, given.name, own ? file.records()[*own]->linux_name : given.name, 0);
  });
  return TellAfterwards(given);
}

int Remove(const Given& given) {
  EditUserFile(given.Directory(), [&given](const UserFile& file, std::vector<std::string>& lines) {
    for (std::size_t i = file.records().size(); i-- > 0;) {
      if (IsNamed(*file.records()[i], given.name)) {
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
    if (lines.size() == file.lines().size()) {
      throw Failed(fmt::format("{} has no record of {} that is read", file.name(), given.name));
    }
    return true;
  });
  return TellAfterwards(given);
}

}  // namespace

void DeclareUsers(CLI::App& app, Action& chosen) {
  const auto given = std::make_shared<Given>();
  CLI::App* users = app.add_subcommand("users", "List who may run as whom, as the daemon reads it");
  users->require_subcommand(0, 1);
  DeclareProgram(*users, given->program);
  users->callback([users, given, &chosen] {
    if (users->get_subcommands().empty()) chosen = [given] { return List(*given); };
  });
  const auto declare = [&](const char* name, const char* description, int (*act)(const Given&)) {
    CLI::App* command = users->add_subcommand(name, description);
    command->add_option("NAME", given->name, "Windows user")->required();
    command->callback([given, act, &chosen] { chosen = [given, act] { return act(*given); }; });
    return command;
  };
  declare("test", "Say what a master of this user gets, and why", Test);
  declare("add", "Let a user run", Add)
      ->add_option("ACCOUNT", given->account, "Linux account of the runs")
      ->required();
  declare("deny", "Refuse a user", Deny);
  declare("remove", "Forget a user", Remove);
}

}  // namespace jobmillctl
