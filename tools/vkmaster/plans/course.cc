#include "tools/vkmaster/plans/course.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <variant>
#include <vector>

#include <fmt/format.h>

#include "master/errors.h"
#include "tools/vkmaster/commands/wells.h"
#include "tools/vkmaster/output/recorder.h"
#include "tools/vkmaster/plans/run_file.h"
#include "tools/vkmaster/report/live_report.h"
#include "tools/vkmaster/text/stopwatch.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

using Clock = std::chrono::steady_clock;

class Course {
 public:
  Course(const Plan& plan, const std::string& report, bool overwrite, Context& context)
      : plan_(plan),
        overwrite_(overwrite),
        context_(context),
        session_(context.session),
        recorder_(plan.directory, stderr, [this] { AwaitRoom(); }),
        recording_{session_, recorder_, context.progress, {}},
        report_(plan.directory, report) {
    recorder_.BeforeWriting([this] { context_.progress.Hide(); });
  }

  void Run() {
    // Before the first step: what is wrong in the last event must not cost the run.
    const double now = session_.TimeDays();
    target_ = DaysOf(plan_.until, session_);
    if (target_ - now < kSameTime) {
      throw UsageError(fmt::format("The run is at day {:.6g}, beyond the plan's end", now));
    }
    SortEvents();
    CheckCommands();
    const std::string nothing = NoteOfNothing(plan_);
    if (!nothing.empty()) context_.output.Note("note: " + nothing);
    began_ = Clock::now();
    RunFile file(plan_, session_, overwrite_);
    try {
      Compute([this] { session_.FirstStep(); });
      const double start = session_.TimeDays();
      context_.progress.BeginAdvance(start, target_);
      Stop(start, true);
      file.Begun();
      CarryOn(start);
    } catch (const master::Interrupted&) {
      EndEarly(file, "interrupted");
      throw;
    } catch (const std::exception& error) {
      EndEarly(file, std::string("failed: ") + error.what());
      throw;
    }
    const std::string left = EventsLeft();
    const char* whole = session_.has_ended() ? "the simulation ended" : "the plan was carried out";
    file.End(left.empty() ? whole : left, session_.last_days(), recorder_.Close());
    report_.Finish();
    if (!left.empty()) throw UsageError(left);
  }

 private:
  struct Timed {
    double at;
    const PlanEvent* event;
  };

  // What ended the run is the failure to tell; what cannot be written about it is a note.
  void EndEarly(RunFile& file, const std::string& how) {
    try {
      const std::set<std::string> files = recorder_.Close();
      if (file.PutBack(files)) {
        context_.output.Note("note: The results of the earlier run are left as they were");
        return;
      }
      file.End(how, session_.last_days(), files);
      report_.Finish();
    } catch (const std::exception& error) {
      context_.output.Note(std::string("note: ") + error.what());
    }
  }

  // Waits a second, and throws what has ended the run meanwhile: a signal, or a link that is lost.
  void AwaitRoom() {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    session_.TimeDays();
  }

  // The results are in files: the run goes on when nobody reads what the screen would show.
  void Show(const Result& state) {
    if (!shown_) return;
    try {
      context_.output.Write(state);
    } catch (const std::system_error& error) {
      shown_ = false;
      context_.output.Note(std::string("note: ") + error.what() + "; the plan goes on");
    }
  }

  // A sentence on the events that the simulation ended before; empty when there are none.
  std::string EventsLeft() const {
    Words left;
    for (std::size_t i = next_event_; i < events_.size(); ++i) {
      const PlanEvent& event = *events_[i].event;
      left.push_back(fmt::format("{} ({})", FormatTarget(event.at), TextOf(event.commands)));
    }
    if (left.empty()) return "";
    return fmt::format("The simulation ended at day {:.6g}. Not carried out: {}",
                       session_.last_days(), Listed(left));
  }

  void Compute(const std::function<void()>& step) {
    const Clock::time_point begin = Clock::now();
    step();
    computing_ = SecondsSince(begin);
  }

  void CarryOn(double now) {
    while (target_ - now >= kSameTime && !session_.has_ended()) {
      now = NextStop(now);
      Compute([&] { session_.RunUntil(now); });
      Stop(now, false);
    }
    context_.progress.End();
  }

  void SortEvents() {
    for (const PlanEvent& event : plan_.events) {
      events_.push_back({DaysOf(event.at, session_), &event});
      if (events_.back().at - target_ < kSameTime) continue;
      throw UsageError(fmt::format("The event of {} is after the end of the plan, day {:.6g}",
                                   FormatTarget(event.at), target_));
    }
    std::stable_sort(events_.begin(), events_.end(),
                     [](const Timed& a, const Timed& b) { return a.at < b.at; });
  }

  void CheckCommands() {
    Check(plan_.record, "record");
    for (const Timed& event : events_) Check(event.event->commands, FormatTarget(event.event->at));
  }

  void Check(const std::vector<Command>& commands, const std::string& when) {
    for (const Command& command : commands) {
      try {
        if (command.check) command.check(session_);
      } catch (const UsageError& error) {
        throw UsageError(when + ", " + command.text + ": " + error.what());
      }
    }
  }

  double NextStop(double now) {
    double next = target_;
    if (plan_.step) next = std::min(next, EndOfStep(*plan_.step, session_.StartDate(), now));
    if (next_event_ < events_.size()) next = std::min(next, events_[next_event_].at);
    return target_ - next < kSameTime ? target_ : next;
  }

  void Stop(double planned, bool start) {
    if (start) CarryOutEvents(planned);
    Result state = StateRow(session_, "steps", false);
    recorder_.SetTime(session_.last_days(), std::get<std::string>(state.fields[1].value));
    Result stop = state;
    stop.fields.push_back({"elapsed", "elapsed", SecondsSince(began_), "s"});
    stop.fields.push_back({"computing", "computing", computing_, "s"});
    recorder_.Write(stop);
    for (const Command& command : plan_.record) {
      command.execute(recording_);
      KeepNotes();
    }
    context_.progress.Reached(session_.last_days());
    if (session_.has_ended() && target_ - session_.last_days() >= kSameTime) {
      state.notes.push_back(EndedBefore(session_, target_));
    }
    Show(state);
    // The simulation may have ended before the stop that was planned.
    if (!start) CarryOutEvents(session_.has_ended() ? session_.last_days() : planned);
    report_.Update();
  }

  void CarryOutEvents(double now) {
    for (; next_event_ < events_.size() && events_[next_event_].at - now < kSameTime;
         ++next_event_) {
      recorder_.SetTime(session_.TimeDays(), FormatDate(session_.run().GetDate()));
      for (const Command& command : events_[next_event_].event->commands) {
        command.execute(recording_);
        WriteEvent(command.text);
        KeepNotes();
      }
    }
  }

  void WriteEvent(const std::string& text) {
    Result done{.command = "events"};
    done.fields.push_back({"command", "command", text, ""});
    recorder_.Write(done);
  }

  // Notes that explain the results are recorded among the events.
  void KeepNotes() {
    for (const std::string& note : recorder_.TakeNotes()) WriteEvent("note: " + note);
  }

  const Plan& plan_;
  bool overwrite_;
  Context& context_;
  Session& session_;
  Recorder recorder_;
  Context recording_;
  LiveReport report_;
  Clock::time_point began_;
  bool shown_ = true;
  double computing_ = 0;  // seconds that the simulator took for the last step
  double target_ = 0;
  std::vector<Timed> events_;
  std::size_t next_event_ = 0;
};

}  // namespace

void CarryOut(const Plan& plan, const std::string& report, bool overwrite, Context& context) {
  Course(plan, report, overwrite, context).Run();
}

}  // namespace vkmaster
