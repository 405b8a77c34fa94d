#include "tools/vkmaster/plans/run_file.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/vkmaster/commands/wells.h"
#include "tools/vkmaster/plans/plan.h"
#include "tools/vkmaster/report/report.h"
#include "tools/vkmaster/session/session.h"
#include "tools/vkmaster/session/units.h"
#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/sha256.h"
#include "tools/vkmaster/text/stopwatch.h"
#include "tools/vkmaster/text/usage_error.h"
#include "tools/vkmaster/text/whole_file.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

const char* const kName = "run.json";
const char* const kReport = "report.html";  // as vkmaster calls it where nobody gives it a name
const char* const kAside = ".before";       // ends the hidden names of what was set aside

std::string Now() {
  return fmt::format(
      "{:%Y-%m-%dT%H:%M:%SZ}",
      fmt::gmtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())));
}

Json Texts(const std::vector<Command>& commands) {
  Json texts = Json::array();
  for (const Command& command : commands) texts.push_back(command.text);
  return texts;
}

// The input file as the daemon's host names it. Its digest is there when this machine sees the
// file, too; "" else.
std::string DeckOf(const master::RunRequest& run) {
  return run.path + (run.path.ends_with('/') ? "" : "/") + run.root + ".afi";
}

std::string DigestOf(const std::string& file) {
  std::ifstream in(PathOf(file), std::ios::binary);
  if (!in) return "";
  const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  return Sha256(bytes);
}

Json ReadJson(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return Json::parse(in, nullptr, false);
}

// The first columns of every file that a plan's results have.
bool IsRecord(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::string line;
  std::getline(in, line);
  return line.starts_with("time_days,date");
}

fs::path AsideOf(const fs::path& earlier) {
  fs::path name(".");
  name += earlier.filename();
  name += kAside;
  return earlier.parent_path() / name;
}

// The name that a file had before it was set aside; empty for any other file.
fs::path NameBefore(const fs::path& file) {
  const fs::path::string_type name = file.filename().native();
  const std::size_t added = 1 + strlen(kAside);
  if (name.size() <= added || name[0] != '.' || file.extension() != kAside) return {};
  const fs::path before(name.substr(1, name.size() - added));
  const bool ours = before == kName || before == kReport || before.extension() == ".csv";
  return ours ? file.parent_path() / before : fs::path();
}

// The files in a directory that a plan's results may be taken for.
struct Present {
  std::vector<fs::path> results;  // of an earlier run; run.json is the first
  std::vector<fs::path> aside;    // had been set aside; run.json is the first
  // A run that was to replace those set aside was killed in its first step.
  bool killed = false;
  Words others;      // names of those that vkmaster has not written
  std::string plan;  // of the earlier run, when it is known
};

Present FilesIn(const std::string& directory) {
  Json run = ReadJson(PathOf(directory) / kName);
  const bool finished = run.is_object() && !run.value("finished", Json()).is_null();
  if (!run.is_object()) run = ReadJson(AsideOf(PathOf(directory) / kName));
  const bool known = run.is_object() && run.contains("vkmaster_version");
  // A run that has ended without a word has no list.
  const Json files = known ? run.value("files", Json()) : Json();
  const auto listed = [&files](const std::string& name) {
    return !files.is_array() || std::find(files.begin(), files.end(), name) != files.end();
  };
  Present present;
  const Json plan = known ? run.value("plan", Json()) : Json();
  if (plan.is_string()) present.plan = PathOf(plan.get<std::string>()).filename().string();
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(PathOf(directory), error)) {
    const std::string name = entry.path().filename().string();
    const bool table = entry.path().extension() == ".csv";
    if (!entry.is_regular_file(error)) continue;
    if (!NameBefore(entry.path()).empty()) present.aside.push_back(entry.path());
    if (name == kReport && IsReport(entry.path().string())) present.results.push_back(entry.path());
    if (name != kName && !table) continue;
    const bool ours = table ? listed(name) && IsRecord(entry.path()) : known;
    if (ours) {
      present.results.push_back(entry.path());
    } else {
      present.others.push_back(name);
    }
  }
  const auto first = [](std::vector<fs::path>& list, const fs::path& name) {
    std::partition(list.begin(), list.end(),
                   [&name](const fs::path& file) { return file.filename() == name; });
  };
  first(present.results, kName);
  first(present.aside, AsideOf(kName));
  std::sort(present.others.begin(), present.others.end());
  present.killed = !present.aside.empty() && !finished;
  return present;
}

void Write(const std::string& path, const std::string& text) {
  WholeFile file(path);
  file.Write(text);
  file.PutInPlace();
}

std::string Dump(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

// The results of two runs would be mixed, or the earlier ones lost.
Present CheckFiles(const Plan& plan, bool overwrite) {
  const std::string& directory = plan.directory;
  Present present = FilesIn(directory);
  if (!present.others.empty()) {
    throw UsageError(fmt::format(
        "'{}' has files that are no results of a plan, and could be taken for some: {}. "
        "Give the plan another directory",
        directory, Listed(present.others)));
  }
  if (present.results.empty() && !present.killed) return present;
  // A copied plan that still names the directory of the one that it was copied from.
  const std::string own = PathOf(plan.file).filename().string();
  if (!present.plan.empty() && present.plan != own) {
    throw UsageError(
        fmt::format("'{}' has the results of another plan, {}. Give {} another directory, or "
                    "remove those results",
                    directory, present.plan, own));
  }
  if (overwrite) return present;
  throw UsageError(fmt::format(
      "'{}' has the results of an earlier run{}. Give the plan another directory, or --overwrite, "
      "which removes {}, {} and the CSV files there",
      directory,
      present.killed ? ", and a run that was to replace them was killed in its first step: they "
                       "are there as .NAME" +
                           std::string(kAside)
                     : "",
      kName, kReport));
}

void CheckFree(const DirectoryLock& lock, const std::string& directory) {
  if (lock.held()) return;
  throw UsageError(fmt::format(
      "A run that is under way writes its results to '{}'. Give the plan another directory",
      directory));
}

// Gives the files of the earlier run hidden names: where each is now, and where it was. run.json
// goes first and comes back last: as long as it is not in its place, or is that of a run without an
// end, what was set aside is what a killed run was to replace.
std::vector<std::pair<fs::path, fs::path>> SetAside(const Present& present, bool has_run_file) {
  std::vector<std::pair<fs::path, fs::path>> files;
  for (const fs::path& aside : present.aside) {
    if (present.killed) {
      files.emplace_back(aside, NameBefore(aside));
    } else {
      fs::remove(aside);  // could not be removed when the present results had begun
    }
  }
  for (const fs::path& file : present.results) {
    if (present.killed && has_run_file) {
      fs::remove(file);  // the beginnings of the killed run
    } else {
      fs::rename(file, AsideOf(file));
      files.emplace_back(AsideOf(file), file);
    }
  }
  return files;
}

// A directory that there is not yet can be made when what is to hold it takes a file.
void CheckWritable(const std::string& directory) {
  fs::path place = PathOf(directory);
  std::error_code error;
  while (place.has_relative_path() && !fs::exists(place, error)) place = place.parent_path();
  const std::string tried = (place / ".vkmaster.new").string();
  std::FILE* const file = OpenToWrite(tried);
  if (file == nullptr) {
    throw UsageError(fmt::format("The results cannot be written to '{}': {}", directory,
                                 std::generic_category().message(errno)));
  }
  std::fclose(file);
  fs::remove(PathOf(tried), error);
}

}  // namespace

struct RunFile::Content {
  Content() : json(Json::object()) {}
  Content(const Content&) = delete;
  Content& operator=(const Content&) = delete;

  Json json;
  std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
};

RunFile::RunFile(const Plan& plan, Session& session, bool overwrite)
    : path_((PathOf(plan.directory) / kName).string()),
      lock_(plan.directory),
      content_(std::make_unique<Content>()) {
  CheckFree(lock_, plan.directory);
  const Launched& launched = session.launched();
  const master::RunRequest& run = launched.request;
  Json& json = content_->json;
  json["title"] = plan.title;
  json["plan"] = plan.file;
  json["deck"] = DeckOf(run);
  const std::string digest = DigestOf(DeckOf(run));
  json["deck_sha256"] = digest.empty() ? Json(nullptr) : Json(digest);
  json["daemon"] = fmt::format("{}:{}", launched.daemon_host, launched.daemon_port);
  json["simulator_host"] = launched.simulator_host;
  json["user"] = run.user;
  json["processes"] = run.processes;
  json["cluster"] = run.cluster;
  json["vkmaster_version"] = JOBMILL_VERSION;
  json["protocol_version"] = launched.daemon_version;
  json["interface"] = run.version;
  json["simulator_version"] = session.run().GetVersion();
  json["unit_system"] = UnitsOf(session.Metric()).system;
  json["components"] = session.Components();
  json["wells"] = session.KnownWells().size();
  json["start_date"] = FormatDate(session.StartDate());
  json["until"] = FormatTarget(plan.until);
  json["step"] = plan.step ? Json(FormatStep(*plan.step)) : Json(nullptr);
  json["record"] = Texts(plan.record);
  json["events"] = Json::array();
  for (const PlanEvent& event : plan.events) {
    json["events"].push_back({{"at", FormatTarget(event.at)}, {"commands", Texts(event.commands)}});
  }
  json["launch_seconds"] = launched.launch_seconds;
  json["began"] = Now();
  json["finished"] = nullptr;
  json["end"] = "running, or ended without a word";
  // A full disk shows before the earlier results have gone.
  WholeFile file(path_);
  file.Write(Dump(json));
  const Present present = CheckFiles(plan, overwrite);
  aside_ = SetAside(present, fs::exists(PathOf(path_)));
  file.PutInPlace();
}

RunFile::~RunFile() = default;

void RunFile::End(const std::string& how, double day, const std::set<std::string>& files) {
  Json& json = content_->json;
  json["finished"] = Now();
  json["wall_seconds"] = SecondsSince(content_->began);
  json["end"] = how;
  json["last_day"] = day;
  json["files"] = files;
  Write(path_, Dump(json));
}

void RunFile::Begun() {
  std::error_code ignored;
  for (const auto& [aside, earlier] : std::exchange(aside_, {})) fs::remove(aside, ignored);
}

bool RunFile::PutBack(const std::set<std::string>& files) {
  if (aside_.empty()) return false;
  const fs::path directory = PathOf(path_).parent_path();
  for (const std::string& name : files) fs::remove(directory / name);
  fs::remove(PathOf(path_));
  const auto all = std::exchange(aside_, {});
  for (auto file = all.rbegin(); file != all.rend(); ++file) fs::rename(file->first, file->second);
  return true;
}

void CheckRoom(const Plan& plan, bool overwrite) {
  CheckWritable(plan.directory);
  CheckFree(DirectoryLock(plan.directory), plan.directory);
  CheckFiles(plan, overwrite);
}

}  // namespace vkmaster
