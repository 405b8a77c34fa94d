#include "inspect/comms_log_reader.h"

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "inspect/comms_log.h"
#include "inspect/run_file.h"

namespace inspect {
namespace {

// Of a longer log only the end is read.
constexpr std::size_t kMostOfCommsLog = 2 << 20;
constexpr std::size_t kEndOfCommsLog = 64 << 10;

constexpr std::chrono::seconds kPatience{2};

// The comms log as a thread reads it that may never come back.
struct ReadLog {
  std::string error;
  bool counted = false;
  CommsLog log;
};

ReadLog ReadCommsLog(const std::string& file, uid_t owner) {
  ReadLog result;
  const RunFile log(file, owner);
  result.error = log.error();
  if (!result.error.empty()) return result;
  result.counted = log.size() <= static_cast<std::int64_t>(kMostOfCommsLog);
  AddLines(log.Tail(result.counted ? kMostOfCommsLog : kEndOfCommsLog), result.log);
  return result;
}

}  // namespace

void AddCommsLogs(const Machine& machine, std::vector<Run>& runs) {
  std::vector<std::pair<Run*, std::future<ReadLog>>> readers;
  for (Run& run : runs) {
    const Jobmill& jobmill = machine.jobmills().at(run.id.pid);
    if (run.comms_log.empty() && !jobmill.files && run.path && run.root &&
        jobmill.options.comms_log && run.path->starts_with('/')) {
      run.comms_log = *run.path + *run.root + ".crvnlog";
    }
    if (run.comms_log.empty() || !run.user) continue;
    std::packaged_task<ReadLog()> task(
        [file = run.comms_log, owner = *run.user] { return ReadCommsLog(file, owner); });
    readers.emplace_back(&run, task.get_future());
    // Not waited for at the end: it may be held by a file system that does not answer.
    std::thread(std::move(task)).detach();
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (auto& [run, reader] : readers) {
    if (reader.wait_until(deadline) != std::future_status::ready) {
      run->unknown["comms_log"] = "its file system does not answer";
      continue;
    }
    const ReadLog read = reader.get();
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
    if (read.counted) {
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
