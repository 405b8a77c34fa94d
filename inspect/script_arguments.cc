#include "inspect/script_arguments.h"

#include "base/number.h"

namespace inspect {

std::optional<ScriptArguments> ReadScript(const std::vector<std::string>& arguments,
                                          const std::string& script) {
  const std::size_t size = arguments.size();
  // In front of the script there may be the interpreter and its options.
  if (size < 6 || arguments[size - 6] != script) return std::nullopt;
  return ScriptArguments{static_cast<int>(NumberIn(arguments[size - 5].c_str())),
                         arguments[size - 4], arguments[size - 3],
                         static_cast<int>(NumberIn(arguments[size - 2].c_str()))};
}

void Take(const ScriptArguments& arguments, Run& run) {
  run.path = arguments.path;
  run.root = arguments.root;
  run.processes = arguments.processes;
  run.comms_port = arguments.port;
}

std::string ScriptOf(const Options& options) {
  return options.script.empty() ? "./vkmpi_dir.sh" : options.script;
}

}  // namespace inspect
