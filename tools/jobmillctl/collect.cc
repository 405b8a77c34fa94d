// The part of the status page that has rights: what it sees it leaves in a file, which it replaces
// as a whole, for a server without any.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/descriptor.h"
#include "inspect/history.h"
#include "inspect/probe.h"
#include "inspect/runs.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/findings.h"
#include "tools/jobmillctl/history_view.h"
#include "tools/jobmillctl/json_values.h"
#include "tools/jobmillctl/measures.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/site_options.h"
#include "tools/jobmillctl/snapshot.h"

namespace jobmillctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr seconds kLongestLook{30};
constexpr seconds kLongestCheck{180};

// Runs that began in the last week and have ended are told, the latest of them.
constexpr double kWeek = 7 * 86400;
constexpr std::size_t kMostEnded = 1000;

// The document in ASCII, valid whatever bytes its texts hold.
std::string TextOf(const Json& document) {
  return document.dump(-1, ' ', true, Json::error_handler_t::replace);
}

// A part of the snapshot, looked at again and again in a process of its own. One that hangs costs
// its part alone: the others go on, and no second process is started beside it.
class Part {
 public:
  // `look` gets what it gave last, empty at first.
  Part(const char* name, seconds every, seconds limit,
       std::function<std::string(const std::string& last)> look)
      : name_(name), every_(every), limit_(limit), look_(std::move(look)) {}

  bool is_due() const { return !inquiry_ && Clock::now() >= due_; }
  bool is_asked() const { return inquiry_ != nullptr; }
  int descriptor() const { return inquiry_ && !told_ ? inquiry_->descriptor() : -1; }

  void Begin() {
    begun_ = Clock::now();
    due_ = begun_ + every_;
    time_ = inspect::Now();
    told_ = false;
    inquiry_ = std::make_unique<inspect::Inquiry>([this] { return look_(text_); }, limit_);
  }

  // True when there is something new to tell.
  bool Advance() {
    if (!inquiry_ || !inquiry_->IsDone(milliseconds(0))) return false;
    const bool news = !told_;
    if (news) Take(inquiry_->TakeAnswer());
    told_ = true;
    if (inquiry_->HasEnded()) inquiry_.reset();
    return news;
  }

  // As it stands in the snapshot.
  std::string Text() const {
    return fmt::format(R"("{}":{{"ok":{},"time":{:.3f},"took_seconds":{:.3f},"document":{}}})",
                       name_, ok_, text_time_, took_, text_.empty() ? "null" : text_);
  }

 private:
  void Take(std::optional<std::string> answer) {
    ok_ = answer.has_value();
    took_ = std::chrono::duration<double>(Clock::now() - begun_).count();
    if (!ok_) return;
    text_ = std::move(*answer);
    text_time_ = time_;
  }

  std::string name_;
  seconds every_;
  seconds limit_;
  std::function<std::string(const std::string&)> look_;

  std::unique_ptr<inspect::Inquiry> inquiry_;
  bool told_ = false;
  Clock::time_point begun_;
  Clock::time_point due_;
  double time_ = 0;

  bool ok_ = false;
  double took_ = 0;
  std::string text_;
  double text_time_ = 0;
};

std::string LookAtRuns(const std::string& gates, const std::string& last) {
  const Json before = last.empty() ? Json() : Json::parse(last).at("measures");
  const inspect::Runs found = inspect::FindRuns(gates);
  const double now = inspect::Now();
  return TextOf({{"status", JsonOf(found, now)}, {"measures", Measure(found, now, before)}});
}

std::string LookAtHistory(const std::string&) {
  inspect::History history = inspect::ReadHistory(inspect::FindRuns(), inspect::Now() - kWeek);
  std::erase_if(history.runs, [](const inspect::EndedRun& run) {
    return run.end.ending == inspect::Ending::kNoRequest;
  });
  if (history.runs.size() > kMostEnded) {
    history.runs.erase(history.runs.begin(),
                       history.runs.end() - static_cast<std::ptrdiff_t>(kMostEnded));
  }
  return TextOf(JsonOf(history, inspect::Now()));
}

std::string HostName() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  return name.data();
}

// Replaces the file as a whole: who reads it finds the old snapshot or the new one.
void Replace(const std::string& file, const std::string& text) {
  const std::string fresh = file + ".new";
  unlink(fresh.c_str());
  const Descriptor output(
      open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  std::size_t written = 0;
  while (output && written < text.size()) {
    const ssize_t size = write(output.get(), text.data() + written, text.size() - written);
    if (size < 0) break;
    written += static_cast<std::size_t>(size);
  }
  if (!output || written < text.size() || rename(fresh.c_str(), file.c_str()) != 0) {
    const std::string reason = strerror(errno);
    unlink(fresh.c_str());
    throw Failed(fmt::format("{} cannot be written: {}", file, reason));
  }
}

struct Given {
  SiteOptions site;
  std::string file = kSnapshotFile;
  std::string gates = inspect::kGateDirectory;
  int every = 5;
  bool once = false;
};

std::vector<Part> PartsOf(const Given& given) {
  const seconds every(given.every);
  std::vector<Part> parts;
  parts.emplace_back("runs", every, kLongestLook,
                     [&given](const std::string& last) { return LookAtRuns(given.gates, last); });
  parts.emplace_back("history", 12 * every, 2 * kLongestLook, LookAtHistory);
  parts.emplace_back("check", 180 * every, kLongestCheck, [&given](const std::string&) {
    return TextOf(FindingsOf(given.site.Sites()));
  });
  return parts;
}

int Collect(const Given& given) {
  std::vector<Part> parts = PartsOf(given);
  const std::string head =
      fmt::format(R"({{"schema":1,"version":"{}","host":{},"every_seconds":{})", JOBMILL_VERSION,
                  TextOf(HostName()), given.every);
  for (bool first = true; first || !given.once || std::ranges::any_of(parts, &Part::is_asked);
       first = false) {
    std::vector<pollfd> answers;
    bool news = false;
    for (Part& part : parts) {
      if (part.is_due() && (first || !given.once)) part.Begin();
      news = part.Advance() || news;
      if (part.descriptor() >= 0) {
        answers.push_back({.fd = part.descriptor(), .events = POLLIN, .revents = 0});
      }
    }
    if (news) {
      std::string text = head;
      for (const Part& part : parts) text += "," + part.Text();
      Replace(given.file, text + "}\n");
    }
    // Answers end the wait. Parts that are due or take too long are seen after it.
    poll(answers.data(), answers.size(), 200);
  }
  return kOk;
}

}  // namespace

void DeclareCollect(CLI::App& app, Action& chosen) {
  const auto given = std::make_shared<Given>();
  CLI::App* command = app.add_subcommand(
      "collect", "Look at runs, history and configuration again and again, for serve");
  given->site.Declare(*command);
  command->add_option("--snapshot", given->file, "The file for serve")
      ->type_name("FILE")
      ->capture_default_str();
  command->add_option("--gates", given->gates, "Where the gates of this machine say what goes on")
      ->type_name("DIR")
      ->capture_default_str();
  command
      ->add_option("--every", given->every,
                   "How often the runs are looked at; the history each 12th time, the "
                   "configuration each 180th")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  command->add_flag("--once", given->once, "Look once");
  command->callback([given, &chosen] {
    given->site.Validate();
    chosen = [given] { return Collect(*given); };
  });
}

}  // namespace jobmillctl
