#include <cctype>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/user_collection.h"
#include "log/flog.h"
#include "tests/support/generators.h"
#include "tests/support/temporary_directory.h"

namespace {

struct User {
  std::string windows_name;
  std::string linux_name;
  std::int32_t allow;
};

// The decimal number that a text begins with, as far as 64 bits go, in the 32 bits of the record.
std::int32_t Number(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])) != 0) ++at;
  const bool negative = at < text.size() && text[at] == '-';
  if (at < text.size() && (text[at] == '-' || text[at] == '+')) ++at;
  const __int128 most =
      negative ? (static_cast<__int128>(1) << 63) : (static_cast<__int128>(1) << 63) - 1;
  __int128 number = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    number = std::min(most, number * 10 + (text[at] - '0'));
  }
  return static_cast<std::int32_t>(static_cast<std::int64_t>(negative ? -number : number));
}

// One line's record, if it is one: two tokens of at most 255 characters and something after the
// one blank that ends the second.
std::optional<User> Record(const std::string& line) {
  if (line.size() > 1023) return std::nullopt;
  std::string rest = line;
  const auto token = [&rest] {
    rest.erase(0, rest.find_first_not_of(' '));
    std::string word = rest.substr(0, rest.find(' '));
    rest.erase(0, word.size() + 1);
    return word;
  };
  const std::string windows_name = token();
  const std::string linux_name = token();
  if (windows_name.empty() || linux_name.empty() || rest.empty()) return std::nullopt;
  if (windows_name.size() > 255 || linux_name.size() > 255) return std::nullopt;
  return User{windows_name, linux_name, Number(rest)};
}

std::vector<User> Model(std::string text) {
  std::vector<User> users;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const auto user = Record(text.substr(0, end));
    if (!user) break;
    users.push_back(*user);
    text.erase(0, end == std::string::npos ? end : end + 1);
  }
  return users;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

const User* Find(const std::vector<User>& users, const std::string& name) {
  const User* everybody = nullptr;
  for (const User& user : users) {
    if (Lower(user.windows_name) == Lower(name)) return &user;
    if (user.windows_name == "*") everybody = &user;
  }
  return everybody;
}

// Of few letters, so that names are found in another case and come twice.
rc::Gen<std::string> AnyName() {
  return rc::gen::weightedOneOf<std::string>(
      {{8, rc::gen::resize(2, rc::gen::nonEmpty(any::TextOf("aAbB")))},
       {3, rc::gen::just<std::string>("*")},
       {1, rc::gen::nonEmpty(any::TextOf("a\t#\r\xe4*"))}});
}

rc::Gen<std::string> AnyLine() {
  const auto allow = rc::gen::oneOf(
      rc::gen::element<std::string>("1", "0", "-1", "yes", "1 extra", "\t7", "", " ", "+2", "- 1",
                                    "4294967296", "99999999999999999999", "-99999999999999999999"),
      rc::gen::map(rc::gen::arbitrary<int>(), [](int n) { return std::to_string(n); }));
  const auto blanks = rc::gen::element<std::string>(" ", " ", " ", "  ");
  const auto record =
      rc::gen::map(rc::gen::tuple(rc::gen::element<std::string>("", "", "", " "), AnyName(), blanks,
                                  AnyName(), blanks, allow),
                   [](const auto& parts) {
                     return std::apply([](const auto&... part) { return (part + ...); }, parts);
                   });
  const auto at_the_limits = rc::gen::map(rc::gen::tuple(rc::gen::inRange<std::size_t>(253, 258),
                                                         rc::gen::inRange<std::size_t>(253, 258),
                                                         rc::gen::inRange<std::size_t>(1, 515)),
                                          [](const auto& sizes) {
                                            return std::string(std::get<0>(sizes), 'a') + " " +
                                                   std::string(std::get<1>(sizes), 'b') + " " +
                                                   std::string(std::get<2>(sizes), '1');
                                          });
  return rc::gen::weightedOneOf<std::string>(
      {{20, record}, {2, at_the_limits}, {1, any::TextOf("a *")}});
}

rc::Gen<std::string> AnyFile() {
  return rc::gen::map(rc::gen::pair(rc::gen::container<std::vector<std::string>>(AnyLine()),
                                    rc::gen::arbitrary<bool>()),
                      [](const auto& parts) {
                        std::string text;
                        for (const std::string& line : parts.first) text += line + "\n";
                        if (parts.second && !text.empty()) text.pop_back();
                        return text;
                      });
}

RC_GTEST_PROP(UserFileProperty, RecordsAndLookUpsAreThoseOfTheModel, ()) {
  const TemporaryDirectory directory;
  const std::string text = *AnyFile();
  directory.Write(".vk_corvane_users", text);
  CVKUserCollection users;
  char error[CVKUserCollection::kErrorSize] = {};
  RC_ASSERT(users.ReadUserFile(directory.path().c_str(), nullptr, error) == 0);

  const std::vector<User> model = Model(text);
  std::string expected = "Contents of user administration file:\n";
  for (std::size_t i = 0; i < model.size(); ++i) {
    expected += "User " + std::to_string(i + 1) + ":\nWindows: " + model[i].windows_name +
                ", Linux: " + model[i].linux_name + ", allow: " + std::to_string(model[i].allow) +
                "\n";
  }
  testing::internal::CaptureStdout();
  flog log(directory.File("log"), true);
  users.LogOut(&log);
  testing::internal::GetCapturedStdout();
  RC_ASSERT(directory.Read("log") == expected);

  for (int i = 0; i < 5; ++i) {
    const std::string name = *AnyName();
    const CVKUser* found = users.GetUser(name.c_str());
    const User* wanted = Find(model, name);
    RC_ASSERT((found != nullptr) == (wanted != nullptr));
    if (found == nullptr) continue;
    RC_ASSERT(found->windows_name == wanted->windows_name);
    RC_ASSERT(found->linux_name == wanted->linux_name);
    RC_ASSERT(found->allow == wanted->allow);
  }
}

}  // namespace
