#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tests/load/load_site.h"
#include "tests/load/scenarios.h"
#include "tests/support/child_process.h"
#include "tests/support/sanitized.h"
#include "tests/support/wire_bytes.h"

namespace load {
namespace {

using Clock = std::chrono::steady_clock;
using Names = std::vector<std::string>;

// What the controller may keep of large answers once it has passed them on.
constexpr long kKept = 4096;

const Names kItems = {"OIL_PRODUCTION_RATE", "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                      "BOTTOM_HOLE_PRESSURE"};
constexpr double kFirst = 1.25;

std::string Ready() {
  return wire::Framed(wire::Mess("READY") + wire::Mess("END"));
}

std::string Reply(const std::string& data) {
  return wire::Framed(wire::Mess("REPLY") + data + wire::Mess("END")) + Ready();
}

// Rows for as many wells as make `size` bytes.
std::string NumberRows(std::size_t size) {
  std::string rows = wire::Cstr("QITEMS", kItems);
  for (int well = 0; rows.size() < size; ++well) {
    rows += wire::Cstr("WELLNAME", {"W" + std::to_string(well)}) +
            wire::Doub("VALUES", {kFirst, 2, 3, 4});
  }
  return rows;
}

std::string StatusRows(std::size_t size) {
  std::string rows = wire::Cstr("QITEMS", {"TYPE", "STATUS"});
  for (int well = 0; rows.size() < size; ++well) {
    rows += wire::Cstr("WELLNAME", {"W" + std::to_string(well)}) +
            wire::Cstr("VALUES", {"PRODUCER", "OPEN"});
  }
  return rows;
}

// One list of doubles of `size` bytes, in a fluid model.
std::string Fluid(std::size_t size) {
  return wire::Cstr("FLUIDMODELDNAME", {"FLUID"}) + wire::Cstr("EOSNAME", {"EOS"}) +
         wire::Cstr("NCOMPS", {}) + wire::Doub("BIC", std::vector<double>(size / 8, kFirst));
}

// A simulator with prepared answers, each of them the bytes of all its messages.
class BulkSimulator {
 public:
  explicit BulkSimulator(std::size_t answer) {
    answers_["SETUP"] =
        wire::Framed(wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + wire::Mess("END")) +
        wire::Framed(wire::Mess("STEP") + wire::Cstr("POSITION", {"MODEL_DEFINITION"}) +
                     wire::Doub("TIME", {0}) + wire::Inte("DATE", {2026, 1, 1, 0, 0, 0}) +
                     wire::Mess("END"));
    answers_["SHUTDOWN"] = wire::Framed(wire::Mess("FINISHED") + wire::Mess("END"));
    // Asked for one well: what the controller does not need is bulk, too.
    answers_["LARGE"] = Reply(NumberRows(answer));
    answers_["SMALL"] = Reply(NumberRows(16384));
    answers_["QWELLS_STR"] = Reply(StatusRows(answer));
    answers_["QRFLUIDMODEL"] = Reply(Fluid(answer));
    answers_["QRESVR_STR"] = Reply(wire::Cstr("QITEM", {"VK_VERSION"}) +
                                   wire::Cstr("VALUES", {"2017.2" + std::string(answer, ' ')}));
  }

  // Which request each message is, by a word that it alone has.
  void Serve(int descriptor) {
    std::string request;
    while (ReadRequest(descriptor, request)) {
      for (const auto& [word, answer] : answers_) {
        if (request.find(word) == std::string::npos) continue;
        try {
          WriteAll(descriptor, answer);
        } catch (const std::system_error&) {
          return;
        }
        sent_ += answer.size();
        break;
      }
    }
  }

  std::uint64_t sent() const { return sent_; }

 private:
  static bool ReadWhole(int descriptor, char* bytes, std::size_t size) {
    while (size > 0) {
      const ssize_t got = recv(descriptor, bytes, size, MSG_WAITALL);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      bytes += got;
      size -= static_cast<std::size_t>(got);
    }
    return true;
  }

  // Requests are short: one chunk.
  static bool ReadRequest(int descriptor, std::string& request) {
    std::uint64_t lengths[2];
    if (!ReadWhole(descriptor, reinterpret_cast<char*>(lengths), sizeof(lengths))) return false;
    if (lengths[0] != lengths[1]) return false;
    request.resize(lengths[0]);
    return ReadWhole(descriptor, request.data(), request.size());
  }

  std::map<std::string, std::string> answers_;
  std::atomic<std::uint64_t> sent_ = 0;
};

// Requests whose answers are large, and what the controller holds after each of them.
class BulkRun {
 public:
  BulkRun(LoadSite& site, const VolumeSize& size, Report& report)
      : size_(size),
        report_(report),
        run_(site.Launch(site.Request(LoadSite::Root(SimulatorFarm::kVolume, "bulk")))) {
    Eventually([&] { return ChildrenOf(site.daemon().pid()).size() == 1; });
    controller_ = ChildrenOf(site.daemon().pid()).at(0);
    run_->Connect();
    SmallAnswers(2000);
    before_ = Anonymous();
  }

  void Cycle() {
    Check(run_->GetWellVariables("LARGE", kItems).at(0) == kFirst, "another value");
    RequireGivenBack("rows of numbers");
    Check(run_->GetVersion() == 2017.2, "another version");
    RequireGivenBack("one text");
    const master::EOSProps eos = run_->GetEOSProps();
    Check(eos.binary_interaction.size() == size_.answer / 8 &&
              eos.binary_interaction.back() == kFirst,
          "another list of numbers");
    RequireGivenBack("one list of numbers");
    const std::vector<master::WellStatus> wells = run_->GetWellStatus();
    Check(wells.size() > size_.answer / 200 && wells.back().status == "OPEN", "other statuses");
    RequireGivenBack("rows of texts");
    SmallAnswers(size_.small_answers);
    RequireGivenBack("small answers");
  }

  void End() {
    report_.Figure("the controller before the first large answer",
                   std::to_string(before_) + " KiB");
    report_.Figure("the most it held between two requests", std::to_string(most_) + " KiB");
    const long peak = StatusValue(controller_, "VmHWM");
    report_.Figure("its peak while it passed an answer on", static_cast<double>(peak) / 1024,
                   "MiB");
    // The message, its values, the reply and the frame that is sent; rows of short texts take more
    // in memory than on the wire.
    report_.Require(kSanitized || peak < 8 * static_cast<long>(size_.answer / 1024) + 16384,
                    "the controller's peak was " + std::to_string(peak) + " KiB");
    run_->Shutdown();
  }

 private:
  void SmallAnswers(std::size_t number) {
    for (std::size_t i = 0; i < number; ++i) {
      Check(run_->GetWellVariables("SMALL", kItems).at(0) == kFirst, "another value");
    }
  }

  long Anonymous() const { return MemoryOf(controller_).value_or(Memory{}).anonymous; }

  // The reply is on its way before the handler has tidied up.
  void RequireGivenBack(const std::string& what) {
    const long limit = before_ + kKept;
    if (!kSanitized) Eventually([&] { return Anonymous() <= limit; }, std::chrono::seconds(1));
    const long now = Anonymous();
    most_ = std::max(most_, now);
    report_.RequireFlat("the controller's memory, after " + what + ",", before_, now, kKept);
  }

  VolumeSize size_;
  Report& report_;
  std::unique_ptr<master::Run> run_;
  pid_t controller_ = 0;
  long before_ = 0;
  long most_ = 0;
};

}  // namespace

void Volume(const VolumeSize& size, Report& report) {
  BulkSimulator simulator(size.answer);
  LoadSite site(false, [&](int descriptor) { simulator.Serve(descriptor); });
  const pid_t daemon = site.daemon().pid();
  site.Launch(site.Request(LoadSite::Root(SimulatorFarm::kGood, "first")));
  Eventually([&] { return ChildrenOf(daemon).empty(); });
  const Baseline baseline(daemon);

  const Clock::time_point start = Clock::now();
  BulkRun run(site, size, report);
  while (simulator.sent() < size.bytes && report.failures().empty()) run.Cycle();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const double gibibytes = static_cast<double>(simulator.sent()) / (1ULL << 30);
  report.Figure("over the simulator link", gibibytes, "GiB");
  report.Figure("throughput", 1024 * gibibytes / seconds, "MiB/s");
  run.End();
  baseline.RequireRest(report);
}

}  // namespace load
