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
};

/// Carries a command out and writes its result to the output. Throws UsageError, before anything is
/// sent, when the run cannot do what was asked for, and whatever the requests of master::Run throw.
using Action = std::function<void(Context&)>;

/// A command that has been understood as far as that is possible without the run.
struct Command {
  std::string text;  ///< as the engineer gave it
  Action execute;
  bool needs_run = true;  ///< false for help
};

/// The action that writes the result of `make`.
inline Action Showing(std::function<Result(Session&)> make) {
  return
      [make = std::move(make)](Context& context) { context.output.Write(make(context.session)); };
}

}  // namespace vkmaster
