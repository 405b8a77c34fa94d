// Lets every system call of the daemon, its connection child and its script process fail, one at a
// time, and kills each of them at every one.

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <list>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <CLI/CLI.hpp>

#include "tests/faults/scenario.h"
#include "tests/faults/system_calls.h"
#include "tests/faults/trial.h"

namespace {

using Clock = std::chrono::steady_clock;

// A trial bounds its own waits; this is for a trial that does not.
constexpr std::chrono::seconds kTrialLimit{120};

// What the test runner takes for "could not be tried here".
constexpr int kSkipped = 77;

struct Options {
  double seconds = 60;
  std::size_t points = 0;  // this many in place of so many seconds
  bool complete = false;
  int jobs = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
  std::uint32_t seed = std::random_device{}();
  std::vector<std::string> replay;
  std::string only;
  std::string daemon;
  bool list = false;
  bool twice = false;
  bool verbose = false;
};

std::string Serialized(const Verdict& verdict) {
  std::ostringstream out;
  out << static_cast<int>(verdict.kind) << " " << verdict.crashed << "\n";
  std::string text = verdict.text;
  std::replace(text.begin(), text.end(), '\n', '|');
  out << text << "\n";
  for (const Met& met : verdict.met) {
    out << static_cast<int>(met.role) << " " << met.call << " " << met.size << " " << met.output
        << " " << static_cast<int>(met.stage) << "\n";
  }
  return out.str();
}

Verdict Deserialized(const std::string& text) {
  std::istringstream in(text);
  Verdict verdict;
  int kind = 0;
  if (!(in >> kind >> verdict.crashed)) {
    verdict.kind = Verdict::Kind::kFailed;
    verdict.text = "the trial itself came to no end";
    return verdict;
  }
  verdict.kind = static_cast<Verdict::Kind>(kind);
  in.ignore();
  std::getline(in, verdict.text);
  int role = 0;
  int stage = 0;
  Met met{};
  while (in >> role >> met.call >> met.size >> met.output >> stage) {
    met.role = static_cast<Role>(role);
    met.stage = static_cast<Stage>(stage);
    verdict.met.push_back(met);
  }
  return verdict;
}

// One trial in a process of its own: whatever becomes of it, the next one starts afresh.
class Worker {
 public:
  Worker(const Point& point, const std::string& daemon) : point_(point) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      close(ends[0]);
      Work(ends[1], daemon);
    }
    setpgid(pid_, pid_);
    close(ends[1]);
    result_ = ends[0];
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() {
    close(result_);
    kill(-pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  const Point& point() const { return point_; }
  int descriptor() const { return result_; }

  /// Reads what has come. True when the trial is over.
  bool Read() {
    std::array<char, 4096> part{};
    const ssize_t got = read(result_, part.data(), part.size());
    if (got > 0) text_.append(part.data(), static_cast<std::size_t>(got));
    return got <= 0;
  }
  bool IsOverdue() const { return Clock::now() - start_ > kTrialLimit; }
  long Milliseconds() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_).count();
  }
  Verdict Result() const { return Deserialized(text_); }

 private:
  [[noreturn]] void Work(int result, const std::string& daemon) const {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::string text;
    try {
      text = Serialized(RunTrial(point_, daemon));
    } catch (const std::exception& error) {
      Verdict failed;
      failed.kind = Verdict::Kind::kFailed;
      failed.text = error.what();
      text = Serialized(failed);
    }
    const bool written =
        write(result, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(written ? 0 : 1);
  }

  const Point point_;
  const Clock::time_point start_ = Clock::now();
  pid_t pid_ = -1;
  int result_ = -1;
  std::string text_;
};

Verdict RunAlone(const Point& point, const std::string& daemon) {
  Worker worker(point, daemon);
  while (!worker.Read()) {
  }
  return worker.Result();
}

// The faults of one call, as a rule each error once and from there on.
void AddPoints(std::vector<Point>& points, Point point, unsigned long size) {
  const SystemCall* call = FindCall(point.call);
  if (call == nullptr) {
    throw std::runtime_error("system call " + std::to_string(point.call) +
                             " is not in the list of what can go wrong");
  }
  point.kind = Point::Kind::kKill;
  points.push_back(point);
  if (size > 1) {
    point.kind = Point::Kind::kShort;
    points.push_back(point);
  }
  for (const int error : call->errors) {
    point.error = error;
    point.kind = Point::Kind::kError;
    points.push_back(point);
    if (!CanLast(call->number, error)) continue;
    point.kind = Point::Kind::kLasting;
    points.push_back(point);
  }
}

// The points of a scenario that no earlier one has, process by process: which of two processes goes
// first is nothing that a recording should tell.
std::vector<Point> PointsOf(const Scenario& scenario, std::vector<Met> met) {
  std::stable_sort(met.begin(), met.end(),
                   [](const Met& a, const Met& b) { return a.role < b.role; });
  std::vector<Point> points;
  std::map<std::pair<Role, long>, int> counts;
  Point point;
  point.scenario = scenario.name;
  for (const Met& one : met) {
    point.role = one.role;
    point.call = one.call;
    point.occurrence = ++counts[{one.role, one.call}];
    if (scenario.Sweeps(one)) AddPoints(points, point, one.size);
  }
  for (const Handled& one : scenario.HandledCalls()) {
    point.role = one.role;
    point.call = one.call;
    point.occurrence = one.occurrence;
    AddPoints(points, point, 0);
  }
  // A file has always room, and takes what there is to write without waiting.
  if (scenario.calls != Scenario::Calls::kOutput) {
    std::erase_if(points,
                  [](const Point& one) { return one.call == SYS_write && one.error == EAGAIN; });
  }
  if (scenario.calls == Scenario::Calls::kMemory) {
    std::erase_if(points, [](const Point& one) { return one.kind == Point::Kind::kKill; });
  }
  return points;
}

// Shuffled, and every system call of every process in every scenario once before any a second time.
// Errors that last come later: where they keep the simulator from being reached they take seconds.
std::vector<Point> Mixed(std::vector<Point> points, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::shuffle(points.begin(), points.end(), random);
  std::map<std::tuple<std::string, Role, long>, int> ranks;
  std::vector<std::pair<int, Point>> ranked;
  for (Point& point : points) {
    const int late = point.kind == Point::Kind::kLasting ? 2 : 0;
    const int rank = ranks[{point.scenario, point.role, point.call}]++ + late;
    ranked.emplace_back(rank, std::move(point));
  }
  std::stable_sort(ranked.begin(), ranked.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<Point> mixed;
  mixed.reserve(ranked.size());
  for (auto& [rank, point] : ranked) mixed.push_back(std::move(point));
  return mixed;
}

class Sweep {
 public:
  explicit Sweep(const Options& options) : options_(options) {}

  /// 0 when every point passed.
  int Run();

 private:
  std::vector<Point> Record();
  bool RecordsTheSame(const std::vector<Point>& points);
  void TryAll(const std::vector<Point>& points);
  void Start(const Point& point) { workers_.emplace_back(point, options_.daemon); }
  void Collect();
  void Judge(const Point& point, const Verdict& verdict);
  void Print() const;

  const Options& options_;
  std::list<Worker> workers_;
  std::vector<Point> again_;
  std::map<std::string, int> tries_;
  std::map<Role, std::map<Verdict::Kind, int>> counts_;
  std::vector<std::string> failures_;
  std::vector<std::pair<Point, std::string>> unsteady_;  // failed once, and why
  std::map<std::string, int> scenarios_;
  const Clock::time_point start_ = Clock::now();
};

std::vector<Point> Sweep::Record() {
  std::vector<Point> points;
  for (const Scenario& scenario : Scenarios()) {
    if (!options_.only.empty() && scenario.name != options_.only) continue;
    if (scenario.as_root && geteuid() != 0) {
      printf("%-10s %s: left out, it takes root\n", scenario.name.c_str(), scenario.what.c_str());
      continue;
    }
    Point point;
    point.scenario = scenario.name;
    const Verdict verdict = RunAlone(point, options_.daemon);
    if (verdict.kind == Verdict::Kind::kFailed) {
      throw std::runtime_error("undisturbed '" + scenario.name + "' failed: " + verdict.text);
    }
    const std::vector<Point> more = PointsOf(scenario, verdict.met);
    printf("%-10s %s: %zu system calls, %zu points\n", scenario.name.c_str(), scenario.what.c_str(),
           verdict.met.size(), more.size());
    points.insert(points.end(), more.begin(), more.end());
  }
  fflush(stdout);
  return points;
}

// A point that only comes up now and then would be swept only now and then.
bool Sweep::RecordsTheSame(const std::vector<Point>& points) {
  const auto texts_of = [](const std::vector<Point>& some) {
    std::set<std::string> texts;
    for (const Point& point : some) texts.insert(point.Text());
    return texts;
  };
  const std::set<std::string> first = texts_of(points);
  const std::set<std::string> second = texts_of(Record());
  std::vector<std::string> once;
  std::set_symmetric_difference(first.begin(), first.end(), second.begin(), second.end(),
                                std::back_inserter(once));
  for (const std::string& text : once) printf("in one recording only: %s\n", text.c_str());
  return once.empty();
}

int Sweep::Run() {
  const std::vector<Point> points = Record();
  if (options_.list) {
    for (const Point& point : points) puts(point.Text().c_str());
    return 0;
  }
  if (options_.twice) return RecordsTheSame(points) ? 0 : 1;
  std::vector<Point> mixed = Mixed(points, options_.seed);
  if (!options_.complete) printf("seed %u\n", options_.seed);
  if (options_.points > 0) mixed.resize(std::min(options_.points, mixed.size()));
  TryAll(mixed);
  Print();
  return failures_.empty() ? 0 : 1;
}

void Sweep::TryAll(const std::vector<Point>& points) {
  auto next = points.begin();
  const auto is_over = [this] {
    return !options_.complete && options_.points == 0 &&
           std::chrono::duration<double>(Clock::now() - start_).count() > options_.seconds;
  };
  while (true) {
    while (workers_.size() < static_cast<std::size_t>(options_.jobs)) {
      if (!again_.empty()) {
        const Point point = again_.back();
        again_.pop_back();
        Start(point);
      } else if (next != points.end() && !is_over()) {
        Start(*next++);
      } else {
        break;
      }
    }
    if (workers_.empty()) return;
    Collect();
  }
}

void Sweep::Collect() {
  std::vector<pollfd> waited;
  for (const Worker& worker : workers_) waited.push_back({worker.descriptor(), POLLIN, 0});
  poll(waited.data(), waited.size(), 1000);
  auto wait = waited.begin();
  for (auto worker = workers_.begin(); worker != workers_.end(); ++wait) {
    if ((wait->revents != 0 && worker->Read()) || worker->IsOverdue()) {
      if (options_.verbose) {
        printf("%6ld ms  %s  %s\n", worker->Milliseconds(), worker->point().Text().c_str(),
               NameOf(worker->Result().kind).c_str());
      }
      Judge(worker->point(), worker->Result());
      worker = workers_.erase(worker);
    } else {
      ++worker;
    }
  }
}

// A point that failed is tried a second time, and is told and counted apart when it passes then:
// the machine is shared, and what happens again can be replayed. A crash is none of the machine's
// doing.
void Sweep::Judge(const Point& point, const Verdict& verdict) {
  const std::string text = point.Text();
  const bool failed = verdict.kind == Verdict::Kind::kFailed;
  const bool passed = !failed && verdict.kind != Verdict::Kind::kNotReached;
  if (!passed && !verdict.crashed && ++tries_[text] == 1) {
    if (failed) unsteady_.emplace_back(point, text + "  " + verdict.text);
    again_.push_back(point);
    return;
  }
  ++counts_[point.role][verdict.kind];
  ++scenarios_[point.scenario];
  if (!failed) return;
  std::erase_if(unsteady_, [&](const auto& one) { return one.first.Text() == text; });
  failures_.push_back(text + "  " + verdict.text);
  printf("FAILED  %s\n", failures_.back().c_str());
  fflush(stdout);
}

void Sweep::Print() const {
  constexpr int kinds = static_cast<int>(Verdict::Kind::kFailed) + 1;
  printf("\n%-14s", "");
  for (const Role role : kRoles) printf("%9s", std::string(NameOf(role)).c_str());
  printf("%9s\n", "all");
  int all = 0;
  for (int kind = 0; kind <= kinds; ++kind) {
    printf("%-14s", kind < kinds ? NameOf(static_cast<Verdict::Kind>(kind)).c_str() : "points");
    int sum = 0;
    for (const Role role : kRoles) {
      int count = 0;
      const auto of = counts_.find(role);
      if (of != counts_.end()) {
        for (const auto& [one, number] : of->second) {
          if (kind == kinds || one == static_cast<Verdict::Kind>(kind)) count += number;
        }
      }
      printf("%9d", count);
      sum += count;
    }
    printf("%9d\n", sum);
    all = sum;
  }
  printf("%-14s", "failed once");
  for (const Role role : kRoles) {
    printf("%9td", std::count_if(unsteady_.begin(), unsteady_.end(),
                                 [role](const auto& one) { return one.first.role == role; }));
  }
  printf("%9zu\n\n", unsteady_.size());
  for (const auto& [scenario, count] : scenarios_) {
    printf("%-14s%9d\n", scenario.c_str(), count);
  }
  for (const auto& [point, line] : unsteady_) {
    printf("failed once, passed again: %s\n", line.c_str());
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  printf("\n%d points in %.0f s, %zu failed, %zu failed once and passed again\n", all, seconds,
         failures_.size(), unsteady_.size());
  if (!failures_.empty()) puts("Replay one with: scripts/fault-sweep --replay POINT");
}

int Replay(const Options& options) {
  int failed = 0;
  for (const std::string& text : options.replay) {
    const Point point = Point::Parse(text);
    if (ScenarioNamed(point.scenario).as_root && geteuid() != 0) {
      printf("%s: left out, it takes root\n", text.c_str());
      return failed == 0 ? kSkipped : 1;
    }
    const Verdict verdict = RunAlone(point, options.daemon);
    printf("%s: %s  %s\n", text.c_str(), NameOf(verdict.kind).c_str(), verdict.text.c_str());
    const bool passed =
        verdict.kind != Verdict::Kind::kFailed && verdict.kind != Verdict::Kind::kNotReached;
    failed += passed ? 0 : 1;
  }
  return failed == 0 ? 0 : 1;
}

int Main(int argc, char** argv) {
  Options options;
  options.daemon =
      (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "vkjobmill.exe").string();
  setvbuf(stdout, nullptr, _IOLBF, 0);
  CLI::App app("Lets every system call of the daemon's processes fail, one at a time.");
  auto* seconds = app.add_option("--seconds", options.seconds, "Try a sample for so long (60)");
  auto* points = app.add_option("--points", options.points, "Try a sample of so many points");
  auto* complete = app.add_flag("--complete", options.complete, "Try every point");
  app.add_option("--jobs", options.jobs, "Trials at the same time")->check(CLI::Range(1, 64));
  app.add_option("--seed", options.seed, "Which sample");
  auto* replay = app.add_option("--replay", options.replay, "Try these points alone");
  app.add_option("--only", options.only, "Only this scenario");
  app.add_option("--daemon", options.daemon, "The daemon to try");
  app.add_flag("--verbose", options.verbose, "Tell of every point, with its milliseconds");
  app.add_flag("--list", options.list, "List the points, try none");
  app.add_flag("--twice", options.twice, "Record the points twice and compare, try none");
  points->excludes(seconds);
  complete->excludes(seconds)->excludes(points);
  replay->excludes(seconds)->excludes(points)->excludes(complete);
  CLI11_PARSE(app, argc, argv);
  return options.replay.empty() ? Sweep(options).Run() : Replay(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "fault-sweep: %s\n", error.what());
  } catch (...) {
    fputs("fault-sweep: an error of unknown kind\n", stderr);
  }
  return 2;
}
