#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/descriptor.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

/// A page in a Chromium without a window, which is asked over a pair of pipes.
class Browser {
 public:
  /// Whether this machine has one.
  static bool IsInstalled();

  /// `scripts`: whether the page's scripts are executed.
  explicit Browser(bool scripts = true);

  /// Leads the page to this address, and waits until it is loaded.
  void Open(const std::string& address);

  /// The value of a JavaScript expression in the page, null for what is no value. An exception in
  /// it is thrown here.
  nlohmann::json Evaluate(const std::string& expression);

  /// Waits until an expression is true.
  bool Becomes(const std::string& expression);

  /// From now on the page sees this value of a media feature, such as prefers-color-scheme.
  void Prefer(const std::string& feature, const std::string& value);

  /// Writes the whole page, as wide as a usual window, as a PNG.
  void Photograph(const std::string& file);

  /// What the browser has complained of: errors of scripts, what the policy of the page forbids,
  /// what could not be loaded.
  const std::vector<std::string>& complaints() const { return complaints_; }

 private:
  nlohmann::json Call(const std::string& method, const nlohmann::json& parameters = {});
  nlohmann::json Receive();

  TemporaryDirectory directory_;
  Descriptor to_;
  Descriptor from_;
  std::unique_ptr<ChildProcess> process_;
  std::string session_;
  std::string received_;
  int calls_ = 0;
  std::vector<std::string> complaints_;
  int loaded_ = 0;
};
