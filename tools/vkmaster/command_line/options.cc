#include "tools/vkmaster/command_line/options.h"

#include <stdlib.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/completion/completion.h"
#include "tools/vkmaster/command_line/prompt.h"
#include "tools/vkmaster/commands/registry.h"
#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

const char* const kPlanHelp =
    "  run PLAN                carry out a plan: a TOML file of dates, controls and what to "
    "record\n"
    "  run --check PLAN        say what the plan will do when; needs no daemon\n"
    "  report DIRECTORY [FILE] make a page of a plan's results, with curves and tables, that "
    "needs\n"
    "                          no other file; FILE is DIRECTORY/report.html unless given\n";

const char* const kHelp[] = {"--help", "-h"};

const char* const kFooter =
    "Several commands are separated by then, or by a comma or semicolon of its own:\n"
    "  vkmaster ... status then until 365 step monthly then shutdown\n"
    "Without commands they are read from --file or standard input; at a terminal there is a\n"
    "prompt with history and completion. Options come before the commands;\n"
    "those of run PLAN may come anywhere.\n"
    "\n"
    "When the commands are through, or end with an error or a signal, the run is shut down, so\n"
    "that it keeps no licence; --leave leaves that out.\n"
    "\n"
    "Exit status:\n"
    "  0  all commands were carried out\n"
    "  1  internal error\n"
    "  2  usage: an option, a command or a file is not as it has to be\n"
    "  3  not launched: the daemon was not reached or refused the run\n"
    "  4  a request failed: the daemon ended the connection on it\n"
    "  5  the connection to the daemon was lost\n"
    "  6  the daemon's answer does not follow the protocol\n"
    "  128 + N  ended by signal N\n";

class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* /*app*/, std::string name) const override {
    return "Usage: " + name + " [OPTIONS] --port P --path DATA --root CASE [COMMAND ARGS...]\n";
  }
  // The footer lists the commands.
  std::string make_subcommands(const CLI::App* /*app*/,
                               CLI::AppFormatMode /*mode*/) const override {
    return "";
  }
  // The base class would fold the lines of the footer.
  std::string make_footer(const CLI::App* app) const override { return app->get_footer(); }
};

std::string DefaultUser() {
  for (const char* name : {"USER", "LOGNAME"}) {
    const char* user = getenv(name);
    if (user != nullptr && *user != '\0') return user;
  }
  return AccountName();
}

// CLI11's own validators would print the largest number that may be given, of 309 digits.
CLI::Validator From(int low) {
  const auto check = [low](const std::string& word) {
    double value = 0;
    if (CLI::detail::lexical_cast(word, value) && value >= low) return std::string();
    return fmt::format("A number from {} on wanted, not '{}'", low, word);
  };
  return {check, low > 0 ? "POSITIVE" : "NONNEGATIVE"};
}

void AddSeconds(CLI::App& app, const std::string& name, std::chrono::seconds& value,
                const std::string& help) {
  app.add_option_function<int>(
         name, [&value](int seconds) { value = std::chrono::seconds(seconds); }, help)
      ->check(From(0))
      ->default_str(std::to_string(value.count()));
}

void AddLaunchOptions(CLI::App& app, Options& options) {
  const char* group = "The run";
  const auto text = [&](const std::string& name, std::string& value, const std::string& help) {
    return app.add_option(name, value, help)->group(group)->capture_default_str();
  };
  text("--host", options.host, "host of the daemon")->envname("VKMASTER_HOST");
  app.add_option("--port", options.port, "port of the daemon")
      ->group(group)
      ->check(CLI::Range(1, 65535))
      ->envname("VKMASTER_PORT");
  text("--gate", options.gate.address,
       "gate in front of the daemon, instead of --host and --port: who this is has to be proven, "
       "and the link may break")
      ->type_name("HOST:PORT")
      ->envname("VKMASTER_GATE");
  const auto file = [&](const std::string& name, auto& value, const std::string& help) {
    return app.add_option(name, value, help)->group(group)->type_name("FILE");
  };
  file("--certificate", options.gate.certificate, "certificate for the gate (PEM)")
      ->envname("VKMASTER_CERTIFICATE");
  file("--key", options.gate.key, "its key (PEM)")->envname("VKMASTER_KEY");
  file("--authority", options.gate.authorities,
       "authority of the gate's certificate (PEM); may be given several times")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->envname("VKMASTER_AUTHORITY");
  file("--revoked", options.gate.revocations, "list of revoked certificates (PEM)")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  text("--gate-name", options.gate.name, "name in the gate's certificate, when that is not HOST")
      ->type_name("NAME");
  text("--path", options.run.path,
       "data directory of the run, on the daemon's side, with a slash at its end: the daemon puts "
       "the model's name right after it, also for the comms log, PATH + CASE + .crvnlog")
      ->type_name("DIR");
  text("--root", options.run.root, "name of the model, without extension");
  text("--processes", options.run.processes, "processes of the simulator")->check(From(1));
  text("--api", options.run.version, "version of the simulator")
      ->type_name("{2016.2,2017.2}")
      ->check(From(0))
      ->envname("VKMASTER_API");
  text("--user", options.run.user, "Windows user name; USER, LOGNAME or the account unless given")
      ->envname("VKMASTER_USER");
  text("--debug", options.run.debug, "debug flag for the distribution script");
  text("--cluster", options.run.cluster, "cluster number, 0 for none")->check(From(0));
}

void AddOtherOptions(CLI::App& app, Options& options) {
  app.add_option("--file", options.file, "read the commands from a file; - is standard input")
      ->type_name("FILE");
  app.add_flag_callback(
      "--json", [&options] { options.form = Form::kJson; },
      "one JSON object a result, a line each");
  app.add_flag_callback(
      "--csv", [&options] { options.form = Form::kCsv; }, "results as CSV");
  app.add_option_function<std::string>(
         "--step",
         [&options](const std::string& word) {
           try {
             options.step = ParseStep(word);
           } catch (const UsageError& error) {
             throw CLI::ValidationError("--step", error.what());
           }
         },
         "step of advances that name none")
      ->type_name("DAYS|{daily,weekly,monthly,quarterly,yearly}");
  app.add_flag_callback(
      "--no-connect", [&options] { options.connect = false; },
      "leave connecting to the simulator to the command connect");
  app.add_flag_callback(
      "--no-progress", [&options] { options.progress = false; },
      "no progress line on the terminal");
  app.add_flag(
      "--leave", options.leave,
      "do not shut the run down at the end: its controller ends with the connection, and the "
      "simulator is left to end by itself");
  app.add_flag("--keep-going", options.keep_going,
               "pass over commands that cannot be carried out, such as those for a well that the "
               "model lacks, and go on");
  app.add_flag("--overwrite", options.overwrite,
               "let the results of a plan replace those of an earlier run");
  app.add_option("--report", options.report,
                 "with run PLAN: make the page that report makes, anew while the run goes on")
      ->type_name("FILE");
  app.add_flag("--one-by-one", options.one_by_one,
               "ask for the record of a well only when that of the well before has come");
  AddSeconds(app, "--connect-wait", options.connect_wait, "seconds to wait for the daemon");
  AddSeconds(app, "--launch-wait", options.launch_wait,
             "seconds to wait for the simulator to be launched; 0 waits as long as it queues");
  AddSeconds(app, "--shutdown-wait", options.shutdown_wait,
             "seconds to wait for the shutdown at the end");
}

// The commands after the options are completed as at the prompt, but without the wells: there is
// no run yet.
completion::Answer CompleteCommands(const Words& words) {
  if (words.size() >= 2 && words[0] == "report") {
    return {{}, words.size() == 2 ? "directories" : "files"};
  }
  const Words before(words.begin(), words.end() - 1);
  completion::Answer answer;
  for (const std::string& word :
       Completions(Join(before), words.back(), {[] { return std::vector<std::string>(); }})) {
    answer.candidates.push_back({word, ""});
  }
  if (!before.empty() && before.back() != "then") return answer;
  for (completion::Candidate& candidate : answer.candidates) {
    for (const CommandHelp& help : CommandList()) {
      if (help.name == candidate.word) candidate.help = help.help;
    }
  }
  if (!before.empty()) return answer;
  for (const completion::Candidate& own :
       {completion::Candidate{"run", "carry out a plan"},
        completion::Candidate{"report", "make a page of a plan's results"}}) {
    if (own.word.starts_with(words.back())) answer.candidates.push_back(own);
  }
  return answer;
}

// The one command of the program's own that CLI11 knows: all options may follow it, too.
CLI::App* AddRun(CLI::App& app, Options& options) {
  CLI::App* run = app.add_subcommand("run", "carry out a plan");
  run->set_help_flag();
  run->prefix_command(false);
  run->fallthrough();
  run->footer("All options of vkmaster --help may stand here, too.");
  run->add_option("PLAN", options.plan, "dates, controls and what to record")->type_name("FILE");
  run->add_flag("--check", options.check, "say what the plan does, without a daemon");
  return run;
}

void CheckRunWords(const Options& options) {
  const char* const usage = "run [OPTIONS] PLAN";
  if (!options.words.empty()) {
    throw UsageError(fmt::format("run: '{}' is not understood here: {}", options.words[0], usage));
  }
  if (options.plan.empty()) throw UsageError(fmt::format("run: Which plan? {}", usage));
}

std::optional<int> Parse(int argc, const char* const* argv, Options& options) {
  CLI::App app("Launches a run through a jobmill daemon and controls it.", "vkmaster");
  AddLaunchOptions(app, options);
  AddOtherOptions(app, options);
  app.set_version_flag("--version", "vkmaster " JOBMILL_VERSION);
  app.set_config("--config", "", "read options from a file of lines like port=5000")
      ->type_name("FILE");
  app.allow_config_extras(CLI::config_extras_mode::error);
  app.prefix_command();
  app.allow_windows_style_options(false);  // a plan at /data is no option
  const CLI::App* run = AddRun(app, options);
  app.formatter(std::make_shared<HelpFormatter>());
  app.footer(HelpText() + kPlanHelp + "\n" + kFooter);
  if (const auto words = completion::Asked(argc, argv)) {
    completion::Print(completion::Complete(app, *words, CompleteCommands));
    return kOk;
  }
  try {
    app.parse(argc, argv);
    options.words = app.remaining();
    if (run->parsed()) CheckRunWords(options);
    const Words& words = options.words;
    if (!words.empty() && words[0] == "report" &&
        std::find_first_of(words.begin(), words.end(), std::begin(kHelp), std::end(kHelp)) !=
            words.end()) {
      Tell(stdout, fmt::format("Usage: vkmaster [OPTIONS] report DIRECTORY [FILE]\n{}vkmaster "
                               "--help lists the options\n",
                               kPlanHelp));
      return kOk;
    }
    for (const CLI::Option* option : app.get_options()) {
      if (!option->empty()) options.given.insert(option->get_name());
    }
  } catch (const CLI::ConfigError& error) {
    throw UsageError(fmt::format("--config: {}; vkmaster --help lists the options", error.what()));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kOk : kUsage;
  }
  return std::nullopt;
}

// The launch options that are texts, by their names without "--".
template <typename AnyOptions>
auto LaunchTexts(AnyOptions& options) {
  auto& run = options.run;
  return std::map<std::string, decltype(&run.path)>{
      {"host", &options.host}, {"path", &run.path},      {"root", &run.root},
      {"user", &run.user},     {"api", &run.version},    {"processes", &run.processes},
      {"debug", &run.debug},   {"cluster", &run.cluster}};
}

}  // namespace

void ApplyLaunch(const Plan& plan, Options& options) {
  for (const auto& [name, text] : plan.launch.texts) {
    if (!options.given.contains("--" + name)) *LaunchTexts(options).at(name) = text;
  }
  if (plan.launch.port && !options.given.contains("--port")) options.port = *plan.launch.port;
}

std::string TakeOptions(const Options& options, Plan& plan) {
  std::string others;
  const auto note = [&](const std::string& name, const std::string& text,
                        const std::string& planned) {
    if (planned.empty() || planned == text) return;
    others += fmt::format("{}{} {}, not {}", others.empty() ? "" : "; ", name, text, planned);
  };
  for (const auto& [name, text] : LaunchTexts(options)) {
    if (!options.given.contains("--" + name)) continue;
    note(name, *text, plan.launch.texts[name]);
    plan.launch.texts[name] = *text;
  }
  if (options.given.contains("--port")) {
    note("port", fmt::format("{}", options.port),
         plan.launch.port ? fmt::format("{}", *plan.launch.port) : "");
    plan.launch.port = options.port;
  }
  if (options.step) {
    note("steps", FormatStep(*options.step), plan.step ? FormatStep(*plan.step) : "");
    plan.step = options.step;
  }
  return others.empty() ? "" : "Options win over the plan: " + others;
}

namespace {

// "run PLAN" and "report" are no commands of a run: each is all that the program is to do.
void TakeOwnWords(Options& options) {
  Words& words = options.words;
  const std::string first = words.empty() ? "" : words[0];
  if (!options.plan.empty()) {
    ApplyLaunch(ReadPlan(options.plan), options);
    if (!options.connect && !options.check)
      throw UsageError("--no-connect leaves run PLAN no run to act on");
  } else if (!options.report.empty()) {
    throw UsageError("--report is for run PLAN: the page is made of a plan's results");
  } else if (first == "report") {
    if (words.size() > 2 && words.back().starts_with('-')) {
      throw UsageError("report: Options come before it, and " + words.back() +
                       " is no name for a page");
    }
    if (words.size() != 2 && words.size() != 3) {
      throw UsageError("report: Of which results? report DIRECTORY [FILE]");
    }
    options.results = words[1];
    options.report = words.size() == 3 ? words[2] : (PathOf(words[1]) / "report.html").string();
    words.clear();
  }
}

// The daemon takes any number, and understands each but 20162 as 2017.2. A year that is neither of
// the two is a mistake all the same.
void CheckVersion(const std::string& version) {
  const bool year = version.size() == 4 || (version.size() > 4 && version[4] == '.');
  if (!year || version == "2016.2" || version == "2017.2") return;
  throw UsageError("There is no version " + version +
                   ": --api is 2016.2 or 2017.2; any other number of the protocol has five digits, "
                   "such as 20180");
}

}  // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options) {
  options.run.user = DefaultUser();
  try {
    if (const auto status = Parse(argc, argv, options)) return status;
    TakeOwnWords(options);
    CheckVersion(options.run.version);
  } catch (const UsageError& error) {
    Tell(stderr, fmt::format("vkmaster: {}\n", error.what()));
    return kUsage;
  }
  // People read 2017.2; the protocol's number 20172 is understood as well.
  std::string& version = options.run.version;
  const bool number = version.find_first_not_of("0123456789") == std::string::npos;
  if (number && version.size() == 5) version.insert(4, ".");
  return std::nullopt;
}

}  // namespace vkmaster
