#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <set>
#include <string>

namespace inspect {

/// What this machine knows about a name, as the daemon asks for it.
struct Account {
  bool exists = false;
  uid_t user = 0;
  gid_t group = 0;
};

/// The accounts of these names; nothing when the name services do not answer in time or say that
/// they cannot.
std::optional<std::map<std::string, Account>> FindAccounts(const std::set<std::string>& names);

/// Makes this process one of the account for good, if it is not that already. Leaves it no further
/// groups, where a run keeps the daemon's. Throws std::runtime_error when that is refused.
void Become(const Account& account);

/// Lets this process act as the account, without further groups, until the next call. Only root
/// can; throws std::runtime_error where that is refused.
void ActAs(const Account& account);

}  // namespace inspect
