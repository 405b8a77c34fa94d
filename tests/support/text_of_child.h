#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

/// Runs `body` in a child of the test, where system calls may be answered (answered_call.h), and
/// hands back the text that it gives: of an exception "threw " and its text. Nothing where `body`
/// gives nothing, because the system does not permit such answers. "no end" after half a minute.
inline std::optional<std::string> TextOfChild(
    const std::function<std::optional<std::string>()>& body) {
  constexpr int kNothing = 77;
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.Write("text", "");
  options.in_child = [&body] {
    std::string text;
    try {
      const std::optional<std::string> given = body();
      if (!given) return kNothing;
      text = *given;
    } catch (const std::exception& error) {
      text = std::string("threw ") + error.what();
    }
    WriteAll(1, text);
    return 0;
  };
  ChildProcess child({}, options);
  const std::optional<int> status = child.Wait(std::chrono::seconds(30));
  if (!status) return "no end";
  if (*status == kNothing) return std::nullopt;
  if (*status != 0) return "status " + std::to_string(*status);
  return directory.Read("text");
}
