// The commands: each reads its words, makes requests through the session, and writes a result. This
// header is the vocabulary that they and all above them share; registry.h lists them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "tools/vkmaster/output/output.h"
#include "tools/vkmaster/output/progress.h"
#include "tools/vkmaster/output/result.h"
#include "tools/vkmaster/session/session.h"
#include "tools/vkmaster/text/calendar.h"

namespace vkmaster {

/// What a command works with; all of it stays the caller's.
struct Context {
  Session& session;
  Output& output;
  Progress& progress;
  std::optional<Step> step;  ///< for an advance that names no step itself; none for a single step
  bool quit = false;         ///< set by the command quit
  /// Whether an advance is to stop between two of its steps; empty for never.
  std::function<bool()> stop_asked{};
};

/// Carries a command out and writes its result to the output. Throws UsageError, before anything is
/// sent, when the run cannot do what was asked for, and whatever the requests of master::Run throw.
using Action = std::function<void(Context&)>;

/// Throws UsageError for what a command cannot do in the run, such as for a well that the model
/// lacks. Changes nothing, so that all commands can be tried when the run begins: a slip in the
/// last of them would otherwise show after hours.
using Check = std::function<void(Session&)>;

/// What a parser makes of a command's words.
struct Parsed {
  Action execute;
  Check check{};                   ///< may be empty
  std::optional<Target> target{};  ///< of an advance
};

/// A command that has been understood as far as that is possible without the run.
struct Command {
  std::string text;  ///< as the engineer gave it
  Action execute;
  bool needs_run = true;  ///< false for help
  Check check{};
  std::optional<Target> target{};
  bool sets = false;  ///< whether its whole purpose is to set something of the run
  Words words{};      ///< those of `text`, which does not tell where the blanks of a word are
};

/// What a parser makes of a command that writes the result of `make`.
inline Parsed Showing(std::function<Result(Session&)> make, Check check = {}) {
  return {
      [make = std::move(make)](Context& context) { context.output.Write(make(context.session)); },
      std::move(check)};
}

/// Checks that `wells` mean wells of the model.
inline Check WellsExist(const Words& wells) {
  return [wells](Session& session) { session.CheckWells(wells); };
}

}  // namespace vkmaster
