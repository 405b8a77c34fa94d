#pragma once

#include <string>
#include <vector>

namespace jobmillctl {

struct BundleFile {
  std::string name;  ///< "runs/5000-20261122-141305/daemon-log.txt"
  std::string what;  ///< what it holds, in words
  std::string text;
};

/// What support needs of the run that `run` names; with `run` empty, of all runs since `since`, in
/// seconds since 1970, and unless root asks, of those of this process's account alone. No file has
/// the values of the environment file. Throws Failed when `run` names no run.
std::vector<BundleFile> FilesOfBundle(const std::string& run, double since);

}  // namespace jobmillctl
