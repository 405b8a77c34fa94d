// The user administration file: the records are those of the lines up to the first that is not a
// record, and a look-up finds the record that the rules say. Who may run, and as whom, hangs on it.

#include <stdlib.h>
#include <strings.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "config/user_collection.h"
#include "fuzz/support/input.h"
#include "fuzz/support/memory_file.h"
#include "fuzz/support/promise.h"
#include "log/flog.h"

namespace {

struct Record {
  std::string windows;
  std::string account;
  std::int32_t allow = 0;
};

constexpr std::size_t kLongestLine = 1023;
constexpr std::size_t kLongestName = 255;

// Takes the next name from a line; false when there is none that fits.
bool TakeName(std::string_view& line, std::string& name) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const std::size_t end = line.find(' ');
  name = line.substr(0, end);
  line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
  return !name.empty() && name.size() <= kLongestName;
}

std::vector<Record> Expected(std::string_view file) {
  std::vector<Record> records;
  while (!file.empty()) {
    const std::size_t end = file.find('\n');
    std::string_view line = file.substr(0, end);
    if (line.size() > kLongestLine) break;
    file.remove_prefix(end == std::string_view::npos ? file.size() : end + 1);
    line = line.substr(0, line.find('\0'));
    Record record;
    if (!TakeName(line, record.windows) || !TakeName(line, record.account) || line.empty()) break;
    record.allow = static_cast<std::int32_t>(strtol(std::string(line).c_str(), nullptr, 10));
    records.push_back(record);
  }
  return records;
}

const Record* Find(const std::vector<Record>& records, const char* wanted) {
  const Record* everybody = nullptr;
  for (const Record& record : records) {
    if (strcasecmp(record.windows.c_str(), wanted) == 0) return &record;
    if (record.windows == "*") everybody = &record;
  }
  return everybody;
}

bool Same(const CVKUser& user, const Record& record) {
  return user.windows_name == record.windows && user.linux_name == record.account &&
         user.allow == record.allow;
}

void CheckLookUp(CVKUserCollection& users, const std::vector<Record>& records, const char* wanted) {
  const Record* expected = Find(records, wanted);
  const CVKUser* found = users.GetUser(wanted);
  PROMISE((found == nullptr) == (expected == nullptr));
  if (found != nullptr) PROMISE(Same(*found, *expected));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static MemoryFile file(".vk_corvane_users");
  static flog log("", true);
  static CVKUserCollection users;
  Input input(data, size);
  const std::string wanted(input.Take(input.Byte() % 32));
  const std::string_view text = input.Rest();
  file.Write(text);

  char error[CVKUserCollection::kErrorSize] = "";
  PROMISE(users.ReadUserFile(file.directory().c_str(), &log, error) == 0);
  PROMISE(error[0] == '\0');
  const std::vector<Record> records = Expected(text);
  CheckLookUp(users, records, wanted.c_str());
  CheckLookUp(users, records, "alice");
  if (records.empty()) return 0;
  // A look-up of the first record's own name gives that record, and the others hang on it.
  const CVKUser* user = users.GetUser(records.front().windows.c_str());
  for (const Record& record : records) {
    PROMISE(user != nullptr && Same(*user, record));
    user = user->next;
  }
  PROMISE(user == nullptr);
  users.LogOut(&log);
  return 0;
}
