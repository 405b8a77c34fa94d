#include "inspect/comms_log_reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "inspect/run_file.h"

namespace inspect {
namespace {

// Of a longer log only the end is read.
constexpr std::size_t kMostOfCommsLog = 2 << 20;
constexpr std::size_t kEndOfCommsLog = 64 << 10;

// A thread that reads from a file system that does not answer is lost to the other files.
constexpr std::size_t kThreads = 64;
constexpr std::chrono::seconds kPatience{2};

// The files, and what threads have read of them, which may never come back from one.
class Work {
 public:
  explicit Work(const std::vector<CommsLogFile>& files) : files_(files), texts_(files.size()) {
    for (CommsLogText& text : texts_) text.error = "its file system does not answer";
  }

  // Reads files until there are no more.
  void Do() {
    for (std::size_t i = next_++; i < files_.size(); i = next_++) {
      CommsLogText text = Read(files_[i]);
      const std::lock_guard lock(mutex_);
      texts_[i] = std::move(text);
      ++done_;
      progress_.notify_one();
    }
  }

  // Waits until all files are read, or until none has been finished for kPatience.
  std::vector<CommsLogText> Await() {
    std::unique_lock lock(mutex_);
    std::size_t before = 0;
    do {
      before = done_;
      progress_.wait_for(lock, kPatience, [&] { return done_ != before || AllDone(); });
    } while (done_ != before && !AllDone());
    return texts_;
  }

 private:
  bool AllDone() const { return done_ == files_.size(); }

  static CommsLogText Read(const CommsLogFile& file) {
    CommsLogText text;
    const RunFile log(file.file, file.owner);
    text.error = log.error();
    if (!text.error.empty()) return text;
    text.whole = log.size() <= static_cast<std::int64_t>(kMostOfCommsLog);
    text.changed = TimeOf(log.status().st_mtim.tv_sec, log.status().st_mtim.tv_nsec);
    struct statx birth {};
    if (statx(log.descriptor(), "", AT_EMPTY_PATH, STATX_BTIME, &birth) == 0 &&
        (birth.stx_mask & STATX_BTIME) != 0) {
      text.began = TimeOf(birth.stx_btime.tv_sec, birth.stx_btime.tv_nsec);
    }
    AddLines(log.Tail(text.whole ? kMostOfCommsLog : kEndOfCommsLog), text.log);
    return text;
  }

  static double TimeOf(std::int64_t seconds, std::int64_t nanoseconds) {
    return static_cast<double>(seconds) + static_cast<double>(nanoseconds) / 1e9;
  }

  const std::vector<CommsLogFile> files_;
  std::atomic<std::size_t> next_ = 0;
  std::mutex mutex_;
  std::condition_variable progress_;
  std::vector<CommsLogText> texts_;
  std::size_t done_ = 0;
};

}  // namespace

std::vector<CommsLogText> ReadCommsLogs(const std::vector<CommsLogFile>& files) {
  const auto work = std::make_shared<Work>(files);
  for (std::size_t i = 0; i < std::min(files.size(), kThreads); ++i) {
    // Not waited for at the end: it may be held by a file system that does not answer.
    std::thread([work] { work->Do(); }).detach();
  }
  return work->Await();
}

void AddCommsLogs(const Machine& machine, std::vector<Run>& runs) {
  std::vector<Run*> readers;
  std::vector<CommsLogFile> files;
  for (Run& run : runs) {
    const Jobmill& jobmill = machine.jobmills().at(run.id.pid);
    if (run.comms_log.empty() && !jobmill.files && run.path && run.root &&
        jobmill.options.comms_log && run.path->starts_with('/')) {
      run.comms_log = *run.path + *run.root + std::string(kCommsLogEnd);
    }
    if (run.comms_log.empty() || !run.user) continue;
    readers.push_back(&run);
    files.push_back({run.comms_log, *run.user});
  }
  const std::vector<CommsLogText> texts = ReadCommsLogs(files);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const CommsLogText& read = texts[i];
    Run* const run = readers[i];
    if (!read.error.empty()) {
      run->unknown["comms_log"] = read.error;
      continue;
    }
    if (read.log.host) run->host = read.log.host;
    run->last_request = read.log.last_request;
    run->day = read.log.day;
    run->date = read.log.date;
    run->until = read.log.until;
    run->cause = read.log.cause;
    if (read.whole) {
      run->requests = read.log.requests;
    } else {
      run->unknown["requests"] = "the comms log is too long to be counted";
    }
    if (run->state == RunState::kSimulator && run->last_request) {
      const std::string request = " to \"" + RequestName(*run->last_request) + "\"";
      run->waits_for.insert(std::string_view("an answer").size(), request);
    }
  }
}

}  // namespace inspect
