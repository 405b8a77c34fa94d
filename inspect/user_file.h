#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/user_collection.h"

namespace inspect {

/// The user administration file, as the daemon reads it.
class UserFile {
 public:
  /// Reads the file in `directory`, where the daemon's executable lies.
  explicit UserFile(const std::string& directory);

  /// The file's name without links.
  const std::string& name() const { return name_; }

  /// Why it could not be read, as in errno, EINVAL when it is no regular file; 0 when it was.
  int error() const { return error_; }

  /// What a master is told when the file cannot be read.
  const std::string& refusal() const { return refusal_; }

  /// All lines of the file. The first of them are the records, the others the daemon does not read.
  const std::vector<std::string>& lines() const { return lines_; }

  /// The records, in the order of their lines; the first stands on line 1.
  const std::vector<const CVKUser*>& records() const { return records_; }

  /// The index of the record that decides about a Windows user, if one does.
  std::optional<std::size_t> Deciding(const std::string& windows_user) const;

 private:
  std::string name_;
  int error_ = 0;
  std::string refusal_;
  std::vector<std::string> lines_;
  std::unique_ptr<CVKUserCollection> users_ = std::make_unique<CVKUserCollection>();
  std::vector<const CVKUser*> records_;
};

/// What keeps `name` from being the name of a Windows user: "a tab", "'\\'". Empty when nothing
/// does.
std::string Unsendable(const std::string& name);

/// Whether nothing but blanks stands in a line.
bool IsBlank(const std::string& line);

}  // namespace inspect
