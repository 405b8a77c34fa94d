#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "config/env_collection.h"
#include "log/flog.h"
#include "tests/support/generators.h"
#include "tests/support/temporary_directory.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

// Names that nothing else uses, few enough to come twice; values; tokens at and above the limit of
// 255; and whatever separates them.
rc::Gen<std::string> AnyFile() {
  const auto long_token = rc::gen::map(rc::gen::inRange<std::size_t>(253, 259),
                                       [](std::size_t size) { return std::string(size, 'L'); });
  const auto token = rc::gen::weightedOneOf<std::string>(
      {{6, rc::gen::element<std::string>("JM_A", "JM_B", "JM_C")},
       {4, rc::gen::nonEmpty(any::TextOf("ab/:=#\"\x01\xff"))},
       {1, long_token}});
  const auto blank = rc::gen::nonEmpty(any::TextOf(" \t\n\r\v\f"));
  return rc::gen::map(
      rc::gen::pair(rc::gen::container<std::vector<std::pair<std::string, std::string>>>(
                        rc::gen::pair(token, rc::gen::resize(3, blank))),
                    rc::gen::arbitrary<std::pair<bool, bool>>()),
      [](const auto& parts) {
        std::string text = parts.second.first ? "\n " : "";
        for (const auto& [word, separator] : parts.first) text += word + separator;
        if (parts.second.second && !text.empty()) text += "JM_A";  // ends without a line end
        return text;
      });
}

// The model: tokens in pairs, those that fit.
Entries Model(const std::string& text) {
  std::vector<std::string> tokens;
  const auto is_blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  for (auto at = text.begin(); at != text.end();) {
    at = std::find_if_not(at, text.end(), is_blank);
    const auto end = std::find_if(at, text.end(), is_blank);
    if (at != end) tokens.emplace_back(at, end);
    at = end;
  }
  if (tokens.size() % 2 != 0) tokens.emplace_back();
  Entries entries;
  for (std::size_t i = 0; i < tokens.size(); i += 2) {
    if (tokens[i].size() <= 255 && tokens[i + 1].size() <= 255) {
      entries.emplace_back(tokens[i], tokens[i + 1]);
    }
  }
  return entries;
}

// A log in a directory of its own, and what stands in it.
class Log {
 public:
  Log() { testing::internal::CaptureStdout(); }
  ~Log() { testing::internal::GetCapturedStdout(); }
  flog* operator&() { return &log_; }
  std::string Text() const { return directory_.Read("log"); }

 private:
  TemporaryDirectory directory_;
  flog log_{directory_.File("log"), true};
};

RC_GTEST_PROP(EnvFileProperty, EntriesAreThePairsOfTokensThatFit, ()) {
  const TemporaryDirectory directory;
  const std::string text = *AnyFile();
  const CEnvCollection collection(directory.Write("env", text).c_str());
  RC_ASSERT(collection.status() == 0);
  std::string expected;
  for (const auto& [name, value] : Model(text)) {
    expected.append("Variable: ").append(name).append(", Value: ").append(value).append("\n");
  }
  Log log;
  collection.LogOut(&log);
  RC_ASSERT(log.Text() == expected);
}

RC_GTEST_PROP(EnvFileProperty, EveryEntryIsPrependedToWhatIsThere, ()) {
  const std::vector<std::string> names = {"JM_A", "JM_B", "JM_C"};
  std::map<std::string, std::string> model;
  for (const std::string& name : names) {
    unsetenv(name.c_str());
    if (!*rc::gen::arbitrary<bool>()) continue;
    model[name] = *any::TextOf("xyz:");
    setenv(name.c_str(), model[name].c_str(), 1);
  }
  std::string text;
  std::string logged;
  for (int i = *rc::gen::inRange(0, 8); i > 0; --i) {
    const std::string name = *rc::gen::elementOf(names);
    const std::string value = *rc::gen::nonEmpty(any::TextOf("ab/:=%"));
    text.append(name).append(" ").append(value).append("\n");
    const bool present = model.count(name) != 0;
    model[name] = present ? value + ":" + model[name] : value;
    logged += std::string("Setting ") + (present ? "" : "non-") + "existing environment variable " +
              name + " to " + model[name] + "\n";
  }
  const TemporaryDirectory directory;
  const CEnvCollection collection(directory.Write("env", text).c_str());
  Log log;
  char error[CEnvCollection::kErrorSize] = {};
  RC_ASSERT(collection.Apply(error, &log) == 0);
  RC_ASSERT(log.Text() == logged);
  for (const std::string& name : names) {
    const char* value = getenv(name.c_str());
    RC_ASSERT((value != nullptr) == (model.count(name) != 0));
    if (value != nullptr) RC_ASSERT(value == model[name]);
    unsetenv(name.c_str());
  }
}

}  // namespace
