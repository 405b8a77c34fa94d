#include "config/user_collection.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <array>
#include <memory>
#include <string>

#include "base/number.h"
#include "config/regular_file.h"
#include "log/flog.h"

namespace {

constexpr std::size_t kLineSize = 1024;

// Copies a token into a field; false when there is none or it does not fit.
template <std::size_t Size>
bool Assign(char (&field)[Size], const char* token) {
  if (token == nullptr || strlen(token) >= Size) return false;
  memcpy(field, token, strlen(token) + 1);
  return true;
}

// Only the blank separates: a tab belongs to the name that it stands in.
bool Parse(char* line, CVKUser& user) {
  char* rest = nullptr;
  if (!Assign(user.windows_name, strtok_r(line, " ", &rest))) return false;
  if (!Assign(user.linux_name, strtok_r(nullptr, " ", &rest))) return false;
  const char* allow = strtok_r(nullptr, "\n", &rest);
  if (allow == nullptr) return false;
  user.allow = static_cast<std::int32_t>(NumberIn(allow));
  return true;
}

// The next line without its end. False after the last one and for a line that is too long.
bool ReadLine(FILE* file, std::array<char, kLineSize>& line) {
  int next = getc(file);
  if (next == EOF) return false;
  std::size_t size = 0;
  for (; next != EOF && next != '\n'; next = getc(file)) {
    if (size + 1 == line.size()) return false;
    line[size++] = static_cast<char>(next);
  }
  line[size] = '\0';
  return true;
}

// A name that a master has sent, as far as the system reads it.
std::string UpToZero(const std::string& name) {
  return name.substr(0, name.find('\0'));
}

}  // namespace

CVKUserCollection::~CVKUserCollection() {
  Reset();
}

void CVKUserCollection::Reset() {
  while (first_ != nullptr) {
    const std::unique_ptr<CVKUser> gone(first_);
    first_ = gone->next;
  }
}

int CVKUserCollection::ReadUserFile(const char* directory, flog* /*log*/, char* error) {
  Reset();
  const std::string path = std::string(directory) + "/./.vk_corvane_users";
  const std::unique_ptr<FILE, int (*)(FILE*)> file(
      IsRegularFile(path.c_str()) ? fopen(path.c_str(), "re") : nullptr, fclose);
  if (!file) {
    snprintf(error, kErrorSize, "Could not open the user administration file: %s", path.c_str());
    return 1;
  }
  CVKUser** last = &first_;
  std::array<char, kLineSize> line{};
  while (ReadLine(file.get(), line)) {
    auto user = std::make_unique<CVKUser>();
    if (!Parse(line.data(), *user)) break;
    *last = user.release();
    last = &(*last)->next;
  }
  // The part that a failing disk did not give may deny a user whom a "*" in the part before it lets
  // in. So nobody is let in.
  if (ferror(file.get()) != 0) Reset();
  return 0;
}

CVKUser* CVKUserCollection::GetUser(const char* windows_user) {
  CVKUser* everybody = nullptr;
  for (CVKUser* user = first_; user != nullptr; user = user->next) {
    if (strcmp(user->windows_name, "*") == 0) everybody = user;
    if (strcasecmp(user->windows_name, windows_user) == 0) return user;
  }
  return everybody;
}

void CVKUserCollection::LogOut(flog* log) const {
  *log << "Contents of user administration file:\n";
  int number = 0;
  for (const CVKUser* user = first_; user != nullptr; user = user->next) {
    *log << "User " << ++number << ":\n";
    *log << "Windows: " << static_cast<const char*>(user->windows_name)
         << ", Linux: " << static_cast<const char*>(user->linux_name) << ", allow: " << user->allow
         << "\n";
  }
}

std::string NotFoundText(const std::string& windows_user) {
  return "Windows user '" + UpToZero(windows_user) + "' not found in administration file";
}

std::string NotAllowedText(const std::string& windows_user) {
  return "Windows user '" + UpToZero(windows_user) + "' does not have permissions to run Varnok";
}

std::string NoAccountText(const std::string& account) {
  return "Failed to get password entry for '" + UpToZero(account) + "'";
}
