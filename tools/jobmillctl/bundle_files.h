#pragma once

#include <string>
#include <vector>

namespace jobmillctl {

/// A file of a bundle.
struct BundleFile {
  std::string name;  ///< "runs/5000-20261122-141305/daemon-log.txt"
  std::string what;  ///< what it holds, in words
  std::string text;
};

/// What support needs of one run, or, without a name, of all that began since then, as far as they
/// are this process's account's; to root all are. The values of the environment file are in none of
/// the files. Throws Failed when no run is meant.
std::vector<BundleFile> FilesOfBundle(const std::string& run, double since);

}  // namespace jobmillctl
