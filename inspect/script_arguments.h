#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config/options.h"
#include "inspect/runs.h"

namespace inspect {

/// What the script process was given, from its command line.
struct ScriptArguments {
  int processes = 0;
  std::string path;
  std::string root;
  int port = 0;
};

/// None when `arguments`, a process's command line, is not that of a started `script`.
std::optional<ScriptArguments> ReadScript(const std::vector<std::string>& arguments,
                                          const std::string& script);

void Take(const ScriptArguments& arguments, Run& run);

/// The script that a daemon of these options starts.
std::string ScriptOf(const Options& options);

}  // namespace inspect
