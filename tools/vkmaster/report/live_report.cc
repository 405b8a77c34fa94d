#include "tools/vkmaster/report/live_report.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include "tools/vkmaster/report/report.h"
#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/whole_file.h"

namespace vkmaster {
namespace {

constexpr std::chrono::seconds kPause{5};
constexpr int kShare = 20;  // the run gets so many times the time that a page takes

}  // namespace

void CheckWritable(const std::string& file) {
  std::error_code error;
  const std::filesystem::path directory = PathOf(file).parent_path();
  if (!directory.empty()) std::filesystem::create_directories(directory, error);
  CheckReplaceable(file);
  const WholeFile tried(file);
}

LiveReport::LiveReport(std::string directory, std::string file)
    : directory_(std::move(directory)), file_(std::move(file)), due_(Clock::now()) {}

void LiveReport::Update() {
  const Clock::time_point now = Clock::now();
  if (file_.empty() || now < due_) return;
  const auto pause = [&](Clock::duration took) {
    return std::max<std::chrono::seconds>(kPause,
                                          std::chrono::ceil<std::chrono::seconds>(kShare * took));
  };
  try {
    // The page loads itself again when the next one is due, by what the last one took to write.
    WriteReport(ReadResults(directory_), file_, pause(last_));
  } catch (const std::exception&) {
    // Finish() tries again. Whatever it is, it is no reason to end a run.
  }
  last_ = Clock::now() - now;
  due_ = Clock::now() + pause(last_);
}

void LiveReport::Finish() {
  if (!file_.empty()) WriteReport(ReadResults(directory_), file_);
}

}  // namespace vkmaster
