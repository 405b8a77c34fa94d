#include "inspect/user_file.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "inspect/file.h"

namespace inspect {

UserFile::UserFile(const std::string& directory) {
  const std::string file = directory + "/.vk_corvane_users";
  name_ = RealName(file);
  const auto text = ReadFile(file);
  if (!text) error_ = errno;
  std::array<char, CVKUserCollection::kErrorSize> refusal{};
  if (users_->ReadUserFile(directory.c_str(), nullptr, refusal.data()) != 0 && error_ == 0) {
    error_ = errno;
  }
  refusal_ = refusal.data();
  if (text) {
    for (const std::string_view line : Lines(*text)) lines_.emplace_back(line);
  }
  // The file may have grown since its lines were read: a record without a line is left out.
  for (const CVKUser* user = users_->first(); user != nullptr; user = user->next) {
    if (records_.size() < lines_.size()) records_.push_back(user);
  }
}

std::optional<std::size_t> UserFile::Deciding(const std::string& windows_user) const {
  const auto found = std::ranges::find(records_, users_->GetUser(windows_user.c_str()));
  if (found == records_.end()) return std::nullopt;
  return static_cast<std::size_t>(found - records_.begin());
}

std::string Unsendable(const std::string& name) {
  if (name.starts_with("\xef\xbb\xbf")) return "a byte order mark";
  for (const char c : name) {
    if (c == '\t') return "a tab";
    if (std::iscntrl(static_cast<unsigned char>(c)) != 0) return "a control character";
    if (std::string_view("\"/\\[]:;|=,+*?<> ").find(c) != std::string_view::npos) {
      return std::string("'") + c + "'";
    }
  }
  return "";
}

bool IsBlank(const std::string& line) {
  return line.find_first_not_of(" \t\r") == std::string::npos;
}

}  // namespace inspect
