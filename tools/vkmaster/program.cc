#include "tools/vkmaster/program.h"

#include <errno.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

#ifdef JOBMILL_WITH_GATE
#include "gate/own_gate.h"
#endif
#include "master/errors.h"
#include "master/launch.h"
#include "tools/vkmaster/command_line/hints.h"
#include "tools/vkmaster/command_line/input.h"
#include "tools/vkmaster/command_line/interrupt.h"
#include "tools/vkmaster/command_line/options.h"
#include "tools/vkmaster/command_line/prompt.h"
#include "tools/vkmaster/commands/advance.h"
#include "tools/vkmaster/commands/registry.h"
#include "tools/vkmaster/plans/course.h"
#include "tools/vkmaster/plans/plan.h"
#include "tools/vkmaster/plans/run_file.h"
#include "tools/vkmaster/report/live_report.h"
#include "tools/vkmaster/report/report.h"
#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/stopwatch.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

using master::Clock;
using master::Deadline;

constexpr std::chrono::milliseconds kTick{250};

Deadline In(std::chrono::seconds wait) {
  return Clock::now() + wait;
}

/// The commands of a file. All of them are parsed before the launch: a mistake in line 40 must not
/// cost a run.
std::vector<Command> ReadCommandFile(const std::string& file) {
  std::ifstream lines(PathOf(file), std::ios::binary);
  if (!lines) throw UsageError("Cannot read the file '" + file + "'");
  std::vector<Command> commands;
  int number = 0;
  try {
    for (std::string line; std::getline(lines, line);) {
      ++number;
      for (Command& command : ParseCommands(SplitWords(line))) {
        commands.push_back(std::move(command));
      }
    }
  } catch (const UsageError& error) {
    throw UsageError(fmt::format("{}, line {}: {}", file, number, error.what()));
  }
  // A directory, or a disk that fails: what was read so far may be a part.
  if (lines.bad()) throw UsageError("Cannot read the file '" + file + "'");
  return commands;
}

class Program {
 public:
  Program(Options options, bool can_redraw)
      : options_(std::move(options)),
        output_(options_.form, stdout, stderr),
        progress_(options_.progress && options_.form == Form::kText && can_redraw, stderr) {
    output_.BeforeWriting([this] { progress_.Hide(); });
    launched_.daemon_host = options_.host;
    launched_.daemon_port = options_.port;
    launched_.request = options_.run;
  }

  int Run() {
    try {
      if (!options_.results.empty()) return MakeReport();
      ReadAhead();
    } catch (const std::exception& error) {
      return Report("", error).status;
    }
    if (OnlyHelp()) return PrintHelp();
    if (options_.check) return ShowPlan();
    const int launched = Launch();
    return launched == kOk ? Control() : launched;
  }

 private:
  // Parses the commands of a plan, of the arguments or of a file, before anything is launched.
  // Commands of a pipe or the prompt are parsed line by line, during the run.
  void ReadAhead() {
    if (!options_.plan.empty()) {
      commands_ = std::vector<Command>{PlanCommand()};
    } else if (!options_.words.empty()) {
      commands_ = ParseCommands(options_.words);
    } else if (!options_.file.empty() && options_.file != "-") {
      commands_ = ReadCommandFile(options_.file);
    }
    if (commands_ && !options_.keep_going) CheckOrder(*commands_);
    if (OnlyHelp() || options_.check) return;
    if (options_.gate.address.empty()) {
      if (options_.port == 0) throw UsageError("The daemon's port is missing: --port");
    } else {
      OpenGate();
    }
    if (options_.run.path.empty()) throw UsageError("The run's data directory is missing: --path");
    if (options_.run.root.empty()) throw UsageError("The model's name is missing: --root");
    if (!options_.plan.empty()) {
      CheckRoom(ReadPlan(options_.plan), options_.overwrite);
      if (!options_.report.empty()) CheckWritable(options_.report);
    }
  }

  // Opens a gate in this process, for this run alone; the launch then connects to it.
  void OpenGate() {
#ifdef JOBMILL_WITH_GATE
    const Gate& given = options_.gate;
    const std::pair<bool, const char*> needed[] = {{given.certificate.empty(), "--certificate"},
                                                   {given.key.empty(), "--key"},
                                                   {given.authorities.empty(), "--authority"}};
    for (const auto& [missing, option] : needed) {
      if (missing) throw UsageError(fmt::format("For --gate there has to be {}", option));
    }
    try {
      // An attempt ends before the launch stops waiting, so that the gate can say why it failed.
      const auto attempt =
          std::max(options_.connect_wait - std::chrono::seconds(1), std::chrono::seconds(1));
      gate_ = std::make_unique<gate::OwnGate>(
          gate::OwnGate::Options{given.address, given.name, given.certificate, given.key,
                                 given.authorities, given.revocations, attempt});
    } catch (const std::exception& error) {
      throw UsageError(error.what());
    }
    launched_.daemon_host = options_.gate.address;
    options_.host = "127.0.0.1";
    options_.port = gate_->port();
#else
    throw UsageError("This vkmaster has no gate in it: start vkgate connect, and give its --port");
#endif
  }

  Command PlanCommand() const {
    auto plan = std::make_shared<Plan>(ReadPlan(options_.plan));
    const std::string others = TakeOptions(options_, *plan);
    const std::string report = options_.report;
    const bool overwrite = options_.overwrite;
    return {"run " + options_.plan, [plan, others, report, overwrite](Context& context) {
              if (!others.empty()) context.output.Note("note: " + others);
              CarryOut(*plan, report, overwrite, context);
            }};
  }

  bool OnlyHelp() const {
    if (!commands_ || commands_->empty()) return false;
    for (const Command& command : *commands_) {
      if (command.needs_run) return false;
    }
    return true;
  }

  int ShowPlan() {
    Plan plan = ReadPlan(options_.plan);
    const std::string others = TakeOptions(options_, plan);
    Result preview = Preview(plan);
    if (!others.empty()) preview.notes.push_back(others);
    output_.Write(preview);
    try {
      CheckRoom(plan, options_.overwrite);
    } catch (const UsageError& error) {
      return Report("run", error).status;
    }
    return kOk;
  }

  int MakeReport() {
    WriteReport(ReadResults(options_.results), options_.report);
    Result made{.command = "report"};
    made.fields.push_back({"file", "report", options_.report, ""});
    output_.Write(made);
    return kOk;
  }

  int PrintHelp() const {
    for (const Command& command : *commands_) {
      std::fputs(HelpText(command.words.size() > 1 ? command.words[1] : "").c_str(), stdout);
    }
    std::fflush(stdout);
    if (std::ferror(stdout) != 0) {
      throw std::system_error(errno, std::generic_category(), "The help cannot be written");
    }
    return kOk;
  }

  Failure Report(const std::string& command, const std::exception& error) {
    progress_.End();
    const bool connecting = !session_ || !session_->connected();
    Failure failure = Explain(error, launched_, connecting);
    output_.WriteError(command, failure.text, failure.hint);
    return failure;
  }

  int SignalStatus() const {
    return kSignal + interrupt_.signal();
  }

  int Launch() {
    const auto began = std::chrono::steady_clock::now();
    std::optional<master::Launch> launch;
    bool requested = false;
    try {
      launch.emplace(master::FrameChannel::ConnectTo(options_.host, options_.port,
                                                     options_.connect_wait, interrupt_.wake()));
      launched_.daemon_version = launch->ExchangeVersions(In(options_.connect_wait));
      requested = true;
      launch->Request(options_.run);
      AwaitHost(*launch);
      launched_.launch_seconds = SecondsSince(began);
    } catch (const master::Interrupted& interrupted) {
      return GiveUp(requested ? &*launch : nullptr, interrupted.what(), SignalStatus());
    } catch (const master::TimedOut& late) {
      return GiveUp(requested ? &*launch : nullptr, late.what(), kNotLaunched);
    } catch (const std::exception& error) {
      const Failure failure = Report("launch", error);
      return failure.status == kUsage ? kUsage : kNotLaunched;
    }
    session_.emplace(master::Run(launch->Release()), launched_);
    if (options_.one_by_one) session_->raw_run().AskOneByOne();
    session_->raw_run().channel().OnWait(kTick, [this] {
      progress_.Tick();
      if (patient_) StopAsked();
    });
    return kOk;
  }

  void AwaitHost(master::Launch& launch) {
    progress_.Begin("waiting for the simulator to be launched");
    launch.OnWait(kTick, [this] { progress_.Tick(); });
    const bool for_ever = options_.launch_wait.count() == 0;
    launched_.simulator_host = launch.AwaitHost(for_ever ? Deadline() : In(options_.launch_wait));
    progress_.End();
  }

  int GiveUp(master::Launch* launch, const char* why, int status) {
    progress_.End();
    std::string hint;
    if (launch != nullptr && !options_.leave) {
      launch->GiveUp();
      hint =
          "The daemon cannot be told to give up a launch; when the simulator runs after all, the "
          "daemon finds the order to shut it down";
    } else if (launch == nullptr) {
      hint = "Is it a jobmill daemon that listens there? It speaks first";
    }
    output_.WriteError("launch", why, hint);
    return status;
  }

  int Control() {
    int status = kOk;
    if (options_.connect) status = Attempt("connect", [this] { session_->Connect(); });
    if (status == kOk && commands_) status = CheckAll(*commands_);
    if (status == kOk) status = commands_ ? ExecuteAll(*commands_) : ExecuteLines();
    return Finish(status);
  }

  int Execute(const Command& command) {
    return Attempt(command.text, [&] {
      Context context{*session_, output_, progress_, options_.step};
      if (patient_) context.stop_asked = [this] { return StopAsked(); };
      command.execute(context);
      quit_ = context.quit;
    });
  }

  // Does `work` under a progress line that names it. Returns the exit status for how it ended.
  int Attempt(const std::string& name, const std::function<void()>& work) {
    try {
      progress_.Begin(name);
      work();
      progress_.End();
      return kOk;
    } catch (const master::Interrupted&) {
      progress_.End();
      return SignalStatus();
    } catch (const std::exception& error) {
      const Failure failure = Report(name, error);
      link_usable_ = failure.status != kRequestFailed && failure.status != kLinkLost;
      if (failure.run_goes_on) may_go_on_ = true;
      return failure.status;
    }
  }

  // True when the next command may be tried after one that ended with `status`.
  bool GoesOn(int status, bool forgiving) {
    const bool tolerated = std::exchange(may_go_on_, false) && forgiving;
    return (status == kOk || tolerated) && !quit_;
  }

  // Tries all commands against the run before the first is carried out. With --keep-going a wrong
  // one is to be passed over when its turn comes.
  int CheckAll(const std::vector<Command>& commands) {
    if (options_.keep_going || !session_->connected()) return kOk;
    for (const Command& command : commands) {
      if (!command.check) continue;
      const int status = Attempt(command.text, [&] { command.check(*session_); });
      if (status != kOk) return status;
    }
    return Attempt("", [&] { CheckOrder(commands, &*session_); });
  }

  int ExecuteAll(const std::vector<Command>& commands) {
    int result = kOk;
    for (const Command& command : commands) {
      if (interrupt_.signal() != 0) return SignalStatus();
      const int status = Execute(command);
      if (status != kOk) result = status;
      if (!GoesOn(status, options_.keep_going)) break;
    }
    // When the terminal is closed a write to it fails, and the signal says why.
    return result != kOk && interrupt_.signal() != 0 ? SignalStatus() : result;
  }

  int ExecuteLines() {
    const bool at_terminal = options_.file.empty() && IsTerminal(stdin);
    const std::unique_ptr<LineSource> lines = Lines(at_terminal);
    const bool forgiving = at_terminal || options_.keep_going;
    int result = kOk;
    try {
      while (const auto line = lines->Next()) {
        const int status = at_terminal ? ExecuteTypedLine(*line) : ExecuteLine(*line);
        if (status != kOk) result = status;
        if (!GoesOn(status, forgiving) || session_->shut_down()) break;
      }
    } catch (const master::Interrupted&) {
      return SignalStatus();
    }
    if (interrupt_.signal() != 0) return SignalStatus();
    // A mistake at the prompt was reported there and is no failure of the program.
    return at_terminal && result == kUsage ? kOk : result;
  }

  int ExecuteLine(const std::string& line) {
    std::vector<Command> commands;
    try {
      commands = ParseCommands(SplitWords(line));
    } catch (const std::exception& error) {
      may_go_on_ = true;
      return Report(line, error).status;
    }
    for (std::size_t i = 0; i < commands.size(); ++i) {
      const int status = Execute(commands[i]);
      if (status == kOk && !quit_ && !(patient_ && StopAsked())) continue;
      if (i + 1 < commands.size() && !quit_) {
        output_.Note(
            "note: Not carried out: " +
            TextOf({commands.begin() + static_cast<std::ptrdiff_t>(i) + 1, commands.end()}));
      }
      return status;
    }
    return kOk;
  }

  // At the prompt a Ctrl-C does not end the run: people press it to get rid of a command. The
  // simulator cannot be interrupted, so the first one waits for the answer that is due.
  class Patience {
   public:
    explicit Patience(Program& program) : program_(program) {
      program_.patient_ = true;
      program_.session_->raw_run().channel().WakeOn(master::kNoWake);
    }
    Patience(const Patience&) = delete;
    Patience& operator=(const Patience&) = delete;
    ~Patience() {
      program_.patient_ = program_.told_ = false;
      program_.session_->raw_run().channel().WakeOn(program_.interrupt_.wake());
    }

   private:
    Program& program_;
  };

  int ExecuteTypedLine(const std::string& line) {
    const int status = [&] {
      const Patience patience(*this);
      return ExecuteLine(line);
    }();
    if (interrupt_.signal() == SIGINT && interrupt_.count() == 1) interrupt_.Clear();
    return status;
  }

  // Whether the command under way is to stop as soon as it can. The second Ctrl-C, and any other
  // signal, interrupts the wait for the answer, which ends the run.
  bool StopAsked() {
    if (interrupt_.signal() == 0) return false;
    if (interrupt_.signal() != SIGINT || interrupt_.count() > 1) {
      session_->raw_run().channel().WakeOn(interrupt_.wake());
    } else if (!std::exchange(told_, true)) {
      output_.Note(
          "Ctrl-C: stops when the simulator has finished its step, and gives the prompt back; "
          "Ctrl-C again ends the run");
    }
    return true;
  }

  std::unique_ptr<LineSource> Lines(bool at_terminal) {
    if (!at_terminal) return StandardInput(interrupt_);
    output_.Note(
        fmt::format("{} runs on {}. help lists the commands, quit leaves. Ctrl-C stops an "
                    "advance after its step; twice, it ends the run.",
                    launched_.request.root, launched_.simulator_host));
    return std::make_unique<Prompt>(
        [this] {
          return fmt::format("{} day {:.6g}> ", launched_.request.root, session_->last_days());
        },
        RunNames{
            [this] {
              const Patience patience(*this);
              std::vector<std::string> names;
              for (const auto& well : session_->KnownWells()) names.push_back(well.name);
              return names;
            },
            [this] {
              const Patience patience(*this);
              return session_->Components();
            },
            [this] { return std::vector(session_->sources().begin(), session_->sources().end()); }},
        interrupt_);
  }

  // Shuts the run down: a run that nobody controls keeps its licence until somebody notices.
  int Finish(int status) {
    if (session_->shut_down() || !link_usable_) return status;
    if (options_.leave) {
      output_.Note(
          "note: The run was left without a shutdown: its controller ends with this connection, "
          "and whether the simulator ends with its controller is up to the simulator");
      return status;
    }
    if (interrupt_.signal() != 0) {
      output_.Note(fmt::format(
          "Interrupted: shutting the run down, for up to {} s; interrupt again to leave at once",
          options_.shutdown_wait.count()));
    }
    const int shutdown = ShutDown();
    return status == kOk ? shutdown : status;
  }

  int ShutDown() {
    interrupt_.Clear();
    progress_.Begin("shutting down");
    try {
      const bool done = session_->raw_run().ShutdownWithin(In(options_.shutdown_wait));
      progress_.End();
      if (!done) {
        output_.Note(
            "note: The simulator is busy; the daemon shuts it down when it is through with its "
            "step");
      }
      return kOk;
    } catch (const master::Interrupted&) {
      progress_.End();
      output_.Note("note: Left before the shutdown was confirmed; the daemon still has the order");
      return SignalStatus();
    } catch (const std::exception& error) {
      return Report("shutdown", error).status;
    }
  }

#ifdef JOBMILL_WITH_GATE
  std::unique_ptr<gate::OwnGate> gate_;  // goes last: what the link has to say passes through it
#endif
  Options options_;
  Interrupt interrupt_;
  Output output_;
  Progress progress_;
  std::optional<std::vector<Command>> commands_;
  Launched launched_;
  std::optional<Session> session_;
  bool quit_ = false;
  bool patient_ = false;    // a Ctrl-C waits for the answer that is due
  bool told_ = false;       // the note on what the first Ctrl-C does was written
  bool may_go_on_ = false;  // the last failure sent nothing: the next command may be tried
  bool link_usable_ = true;
};

}  // namespace

int RunProgram(int argc, const char* const* argv) {
  try {
    const Terminal terminal;
    Options options;
    if (const auto status = ParseOptions(argc, argv, options)) return *status;
    return Program(std::move(options), terminal.CanRedraw()).Run();
  } catch (const std::exception& error) {
    Tell(stderr, fmt::format("vkmaster: {}\n", error.what()));
    return kInternal;
  }
}

}  // namespace vkmaster
