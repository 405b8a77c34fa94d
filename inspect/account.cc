#include "inspect/account.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <stdexcept>

#include "inspect/probe.h"

namespace inspect {
namespace {

// "1 USER GROUP", or "0 0 0" where there is no such account.
std::string LookUp(const std::string& name) {
  errno = 0;
  const passwd* entry = getpwnam(name.c_str());
  if (entry != nullptr) {
    return "1 " + std::to_string(entry->pw_uid) + " " + std::to_string(entry->pw_gid) + "\n";
  }
  // These say that there is no such account (getpwnam(3)).
  constexpr std::array kNoAccount = {0, ENOENT, ESRCH, EBADF, EPERM};
  if (std::ranges::find(kNoAccount, errno) == kNoAccount.end()) {
    throw std::runtime_error("the name service failed");
  }
  return "0 0 0\n";
}

void Require(int result) {
  if (result != 0) throw std::runtime_error("cannot become the account");
}

}  // namespace

std::optional<std::map<std::string, Account>> FindAccounts(const std::set<std::string>& names) {
  const auto answer = Ask([&names] {
    std::string lines;
    for (const std::string& name : names) lines += LookUp(name);
    return lines;
  });
  if (!answer) return std::nullopt;
  std::istringstream lines(*answer);
  std::map<std::string, Account> accounts;
  for (const std::string& name : names) {
    Account& account = accounts[name];
    lines >> account.exists >> account.user >> account.group;
  }
  return accounts;
}

void Become(const Account& account) {
  if (geteuid() == account.user) return;
  Require(setgroups(0, nullptr));
  Require(setgid(account.group));
  Require(setuid(account.user));
}

void ActAs(const Account& account) {
  Require(seteuid(0));
  Require(setgroups(0, nullptr));
  Require(setegid(account.group));
  Require(seteuid(account.user));
}

}  // namespace inspect
