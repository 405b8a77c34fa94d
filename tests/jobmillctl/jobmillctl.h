#pragma once

#include <grp.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

/// What the program left behind.
struct Outcome {
  int status = -1;  ///< exit status; -1 when it did not end
  std::string out;
  std::string err;
};

/// Runs a program, half a minute at most. Where its output goes is not for `options` to say.
inline Outcome OutcomeOf(const std::vector<std::string>& words, ChildProcess::Options options) {
  const TemporaryDirectory directory;
  options.output_file = directory.File("out");
  options.error_file = directory.File("err");
  ChildProcess process(words, options);
  const int status = process.Wait(std::chrono::seconds(30)).value_or(-1);
  return {.status = status, .out = directory.Read("out"), .err = directory.Read("err")};
}

/// Runs jobmillctl with these arguments. `input` is what a person types.
inline Outcome Jobmillctl(std::vector<std::string> arguments,
                          const std::vector<std::string>& environment = {},
                          const std::string& input = "") {
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.environment = environment;
  options.input_file = directory.Write("in", input);
  arguments.insert(arguments.begin(), ProgramDirectory() + "/jobmillctl");
  return OutcomeOf(arguments, options);
}

/// The same as an account without any rights. Needs root.
inline Outcome JobmillctlAsNobody(std::vector<std::string> arguments) {
  const TemporaryDirectory directory;
  std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));
  const std::string program = directory.File("jobmillctl");  // where every account may execute it
  std::filesystem::copy_file(ProgramDirectory() + "/jobmillctl", program);
  ChildProcess::Options options;
  options.in_child = [] {
    constexpr unsigned nobody = 65534;
    return setgroups(0, nullptr) + setgid(nobody) + setuid(nobody);
  };
  arguments.insert(arguments.begin(), program);
  return OutcomeOf(arguments, options);
}
