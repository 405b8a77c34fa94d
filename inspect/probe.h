#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace inspect {

/// What `question` answers, or nothing when it does not within `limit`. It is asked in a process of
/// its own, which is killed then: name services and network file systems may keep a process for
/// minutes. So what it changes, its account even, stays there.
std::optional<std::string> Ask(const std::function<std::string()>& question,
                               std::chrono::milliseconds limit = std::chrono::seconds(10));

}  // namespace inspect
