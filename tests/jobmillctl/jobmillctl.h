#pragma once

#include <chrono>
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

/// Runs jobmillctl with these arguments, half a minute at most. `input` is what a person types.
inline Outcome Jobmillctl(std::vector<std::string> arguments,
                          const std::vector<std::string>& environment = {},
                          const std::string& input = "") {
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  options.error_file = directory.File("err");
  options.environment = environment;
  options.input_file = directory.Write("in", input);
  arguments.insert(arguments.begin(), ProgramDirectory() + "/jobmillctl");
  ChildProcess process(arguments, options);
  const int status = process.Wait(std::chrono::seconds(30)).value_or(-1);
  return {.status = status, .out = directory.Read("out"), .err = directory.Read("err")};
}
