#include "tests/hostile/runner.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/socket_pair.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

#ifdef __SANITIZE_ADDRESS__
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Under the sanitizers memory says nothing and everything takes its time, as where counters for
// coverage are kept.
const int kPatienceFactor = kSanitized || getenv("LLVM_PROFILE_FILE") != nullptr ? 10 : 1;
constexpr seconds kPatience{60};

constexpr const char* kPath = "/usr/local/bin:/usr/bin:/bin";
constexpr const char* kSanitizer = "detect_leaks=0";  // a traced process cannot look for leaks

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void Differ(const std::string& what, const std::string& wanted,
                         const std::string& came) {
  throw Failure(what + "\n  expected: " + Readable(wanted) + "\n  came:     " + Readable(came));
}

// One end of a connection in the hands of the test.
class Link {
 public:
  Link() = default;
  explicit Link(Descriptor descriptor) : descriptor_(std::move(descriptor)) {
    const int on = 1;
    setsockopt(descriptor_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }

  bool open() const { return descriptor_.get() >= 0; }
  void Close() {
    const int second = 1;  // how long this side of the connection outlives its end
    setsockopt(descriptor_.get(), IPPROTO_TCP, TCP_LINGER2, &second, sizeof(second));
    descriptor_ = Descriptor();
  }
  void HalfClose() const { shutdown(descriptor_.get(), SHUT_WR); }
  void Reset() {
    const linger now{1, 0};
    setsockopt(descriptor_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    Close();
  }

  // Sends all of it; with `flood` as much of it as the peer takes before it ends the connection.
  void Send(std::string_view bytes, bool flood) const {
    const auto limit = Clock::now() + kPatience;
    while (!bytes.empty()) {
      const ssize_t sent =
          send(descriptor_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        bytes.remove_prefix(static_cast<std::size_t>(sent));
      } else if (errno == EAGAIN) {
        if (!Await(POLLOUT, limit)) throw Failure("nobody takes what is sent");
      } else if (flood) {
        return;
      } else {
        throw Failure(std::string("cannot send: ") + strerror(errno));
      }
    }
  }

  // Up to `size` bytes; fewer when the connection ends, or when `limit` comes, before.
  std::string Receive(std::size_t size, Clock::time_point limit, bool& ended) const {
    std::string bytes;
    ended = false;
    while (bytes.size() < size && Await(POLLIN, limit)) {
      std::string part(std::min<std::size_t>(size - bytes.size(), 1 << 20), '\0');
      const ssize_t got = recv(descriptor_.get(), part.data(), part.size(), 0);
      ended = got <= 0;
      if (ended) break;
      bytes.append(part, 0, static_cast<std::size_t>(got));
    }
    return bytes;
  }

  void Hear(const std::string& wanted, const std::string& what) const {
    bool ended = false;
    const std::string came = Receive(wanted.size(), Clock::now() + kPatience, ended);
    if (came != wanted) Differ(what + (ended ? ", then the end" : ""), wanted, came);
  }

  void HearEnd(const std::string& what) const {
    bool ended = false;
    const std::string came = Receive(1000, Clock::now() + kPatience, ended);
    if (!came.empty()) Differ(what, "the end", came);
    if (!ended) throw Failure(what + ": no end");
  }

  void HearNothing(milliseconds time, const std::string& what) const {
    bool ended = false;
    const std::string came = Receive(1, Clock::now() + time, ended);
    if (ended || !came.empty()) Differ(what, "silence", ended ? "the end" : came);
  }

 private:
  bool Await(short event, Clock::time_point limit) const {
    const auto left = std::chrono::duration_cast<milliseconds>(limit - Clock::now());
    pollfd waited{descriptor_.get(), event, 0};
    return poll(&waited, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) == 1;
  }

  Descriptor descriptor_;
};

sockaddr_in Loopback(std::int64_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

Descriptor Listen(std::int64_t port) {
  Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const sockaddr_in address = Loopback(port);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener.get(), 5) != 0) {
    throw Failure("cannot listen on " + std::to_string(port) + ": " + strerror(errno));
  }
  return listener;
}

Link Connect(int port) {
  Descriptor master(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(port);
  if (connect(master.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw Failure(std::string("no connection to the daemon: ") + strerror(errno));
  }
  return Link(std::move(master));
}

std::string ArgumentOf(const std::vector<std::string>& arguments, const std::string& option,
                       const std::string& otherwise) {
  const auto found = std::find(arguments.begin(), arguments.end(), option);
  return found == arguments.end() || found + 1 == arguments.end() ? otherwise : *(found + 1);
}

void CleanEnvironment() {
  clearenv();
  setenv("PATH", kPath, 1);
  if (kSanitized) setenv("ASAN_OPTIONS", kSanitizer, 1);
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed leaves no daemon
  // Where only ancestors may trace, the watcher is none.
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
}

bool UseOwnAccounts(const std::string& passwords) {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(passwords.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
}

void Put(const std::string& file, const std::string& content, mode_t mode) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
  chmod(file.c_str(), mode);
}

// The fields of a run request in their order, with what they usually hold; of `path` the test's
// directory.
struct RequestField {
  const char* name;
  const char* usual;
};
constexpr RequestField kRequestFields[] = {
    {"cluster", "0"},     {"path", nullptr}, {"root", "CASE"}, {"processes", "1"},
    {"version", "20172"}, {"user", "alice"}, {"flag", "0"}};

Descriptor OpenToWrite(const std::string& file) {
  return Descriptor(open(file.c_str(), O_WRONLY | O_CLOEXEC));
}

void BindLocal(const std::string& file) {
  const Descriptor local(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  file.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (bind(local.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    throw Failure("cannot place a socket");
  }
}

// What may stand in the place of a file. Whatever is there goes first, but for a file that stays
// and is only changed.
struct Kind {
  const char* name;
  bool stays;
  void (*place)(const std::string& file, Descriptor& open);
};
const Kind kKinds[] = {
    {"absent", false, [](const auto&, auto&) {}},
    {"directory", false, [](const auto& file, auto&) { fs::create_directory(file); }},
    {"pipe", false, [](const auto& file, auto&) { mkfifo(file.c_str(), 0644); }},
    {"socket", false, [](const auto& file, auto&) { BindLocal(file); }},
    {"loop", false, [](const auto& file, auto&) { fs::create_symlink(file, file); }},
    {"unreadable", true, [](const auto& file, auto&) { chmod(file.c_str(), 0); }},
    {"not executable", true, [](const auto& file, auto&) { chmod(file.c_str(), 0644); }},
    {"busy", true, [](const auto& file, auto& open) { open = OpenToWrite(file); }},
};

// How a run ends that does not end of itself: what `end` begins with, and what the comms log says
// before the text that follows it.
struct FailedEnd {
  std::string_view begin;
  std::string_view reason;
};
constexpr FailedEnd kFailedEnds[] = {
    {"controller: ", "Exception returned from VK controller: "},
    {"master: ", "Exception returned from Corvane comms: "},
    {"unknown", "Unknown exception"},
};

// One case at work.
class Conversation {
 public:
  Conversation(const Case& wanted, WatchedDaemon& daemon)
      : wanted_(wanted), daemon_(daemon), directory_(daemon.daemon().directory().path().string()) {}

  std::string Run(Figures& figures) {
    std::string complaint;
    std::optional<Ended> ended;
    try {
      Prepare();
      Talk();
      complaint = CompareWithEnd(ended);
    } catch (const Failure& failure) {
      complaint = failure.what() + std::string("\n");
      master_.Close();
      simulator_.Close();
      listener_ = Descriptor();
      if (!ended && !killed_) AwaitEndAnyhow();
      complaint += "the daemon log says: " + Readable(DaemonLog()) +
                   "\nthe comms log says: " + Readable(CommsLog()) + "\n";
    }
    if (ended) figures = {ended->memory, ended->processor};
    CleanUp();
    return complaint;
  }

 private:
  // --- files ---

  std::string Said(const std::string& text) const { return Bytes(Replace(text, variables_)); }

  // A text with variables, and with notation in ${}.
  std::string Filled(const std::string& templ) const {
    std::string text = Replace(templ, variables_);
    std::string filled;
    std::size_t at = 0;
    while (true) {
      const std::size_t begin = text.find("${", at);
      if (begin == std::string::npos) break;
      const std::size_t end = text.find('}', begin);
      filled += text.substr(at, begin - at);
      filled += Bytes(text.substr(begin + 2, end - begin - 2));
      at = end + 1;
    }
    return filled + text.substr(at);
  }

  std::string Field(const std::string& name) const {
    const auto field = wanted_.fields.find(name);
    if (field != wanted_.fields.end()) return Filled(field->second);
    const auto* usual = std::find_if(std::begin(kRequestFields), std::end(kRequestFields),
                                     [&name](const auto& one) { return name == one.name; });
    return usual->usual == nullptr ? directory_ + "/" : usual->usual;
  }

  void PlaceFile(const std::string& key, const std::string& name, mode_t mode) {
    const auto file = wanted_.files.find(key);
    if (file == wanted_.files.end()) return;
    placed_.push_back(name);
    Put(name, Filled(file->second), mode);
  }

  // What stands in the place of a file.
  void PlaceKind(const std::string& key, const std::string& name) {
    const auto kind = wanted_.files.find(key + "_is");
    if (kind == wanted_.files.end()) return;
    placed_.push_back(name);
    std::error_code ignored;
    constexpr std::string_view kLink = "link to ";
    if (kind->second.starts_with(kLink)) {
      fs::remove_all(name, ignored);
      return fs::create_symlink(Replace(kind->second.substr(kLink.size()), variables_), name);
    }
    for (const Kind& one : kKinds) {
      if (kind->second != one.name) continue;
      if (!one.stays) fs::remove_all(name, ignored);
      return one.place(name, busy_);
    }
    throw Failure("unknown kind of file " + kind->second);
  }

  void Prepare() {
    while (daemon_.watcher().Next(Clock::now())) {
      // what an earlier case did not ask for
    }
    const std::string script = daemon_.File("script");
    log_begin_ = fs::file_size(daemon_.daemon().LogFile());
    port_ = daemon_.TakeCommsPort();
    std::string sanitizer =
        kSanitized ? std::string("env ASAN_OPTIONS=") + kSanitizer + "\n" : std::string();
    // A build for coverage sets a variable in every process of its own.
    constexpr const char* counters = "__LLVM_PROFILE_RT_INIT_ONCE";
    if (const char* value = getenv(counters)) {
      sanitizer += std::string("env ") + counters + "=" + value + "\n";
    }
    variables_ = {{"DIR", directory_},
                  {"SCRIPT", script},
                  {"PORT", std::to_string(port_)},
                  {"ENV", std::string("env PATH=") + kPath + "\n" + sanitizer},
                  {"SANITIZER", sanitizer},
                  {"REQUEST", ""}};
    for (const RequestField& field : kRequestFields) variables_[field.name] = Field(field.name);
    comms_file_ = directory_ + "/CASE.crvnlog";
    if (!wanted_.comms_file.empty()) comms_file_ = Filled(wanted_.comms_file);
    std::error_code ignored;
    fs::remove(comms_file_, ignored);
    PlaceFile("users", daemon_.File(".vk_corvane_users"), 0644);
    PlaceFile("environment", daemon_.File(".vk_corvane_env"), 0644);
    PlaceFile("script", script, 0755);
    const auto prints = wanted_.files.find("prints");
    if (prints != wanted_.files.end()) {
      Put(daemon_.File("prints"), Filled(prints->second), 0644);
      Put(script, "#!/bin/sh\nexec cat '" + daemon_.File("prints") + "'\n", 0755);
      placed_.push_back(script);
    }
    PlaceKind("users", daemon_.File(".vk_corvane_users"));
    PlaceKind("environment", daemon_.File(".vk_corvane_env"));
    PlaceKind("script", script);
    FillLogVariables();
  }

  // The lines of a usual handshake and launch, for the cases to put together.
  void FillLogVariables() {
    variables_["REQUEST"] = "Clust: " + Field("cluster") + "\nPath: " + Field("path") +
                            "\nRoot: " + Field("root") + "\nProc: " + Field("processes") +
                            "\nVer: " + Field("version") + "\n";
    variables_["PERSON"] = "Windows user received: " + Field("user") +
                           "\nDebug flag received: " + Field("flag") + "\n";
    variables_["ARGUMENTS"] = "Argument list\nArg 1: " + variables_["SCRIPT"] +
                              "\nArg 2: " + Field("processes") + "\nArg 3: " + Field("path") +
                              "\nArg 4: " + Field("root") + "\nArg 5: " + std::to_string(port_) +
                              "\nArg 6: " + Field("flag") + "\nArg 7: ";
    variables_["HOST"] = "HOST=127.0.0.1\nHost detected: 127.0.0.1" + std::string(1, '\0') + "\n";
  }

  void CleanUp() {
    busy_ = Descriptor();
    std::error_code ignored;
    for (const std::string& file : placed_) {
      if (file != daemon_.File("script")) fs::remove_all(file, ignored);
    }
    if (std::find(placed_.begin(), placed_.end(), daemon_.File("script")) != placed_.end()) {
      fs::remove_all(daemon_.File("script"), ignored);
      Put(daemon_.File("script"), kUsualScript, 0755);
    }
    fs::remove(comms_file_, ignored);
  }

  // --- the talk ---

  void Talk() {
    const bool with_simulator =
        wanted_.start == "connected" ||
        std::any_of(wanted_.steps.begin(), wanted_.steps.end(),
                    [](const std::string& step) { return step.starts_with("sim-"); });
    if (with_simulator) listener_ = Listen(port_);
    master_ = Connect(daemon_.daemon().port());
    master_.Hear(Frame("3"), "the version");
    if (wanted_.start != "raw") Launch();
    if (wanted_.start == "connected") ConnectSimulator();
    for (const std::string& step : wanted_.steps) {
      try {
        Take(step);
      } catch (const std::exception& error) {
        throw Failure("step \"" + step.substr(0, 200) + "\": " + error.what());
      }
    }
    EndTalk();
  }

  void Launch() {
    std::string all = Frame("3");
    for (const RequestField& field : kRequestFields) all += Frame(Field(field.name));
    master_.Send(all, false);
    if (wanted_.start == "run" || wanted_.start == "connected") {
      master_.Hear(Bytes("text('OK|127.0.0.1' 00)"), "the host");
    }
  }

  void ConnectSimulator() {
    master_.Send(Bytes("ask(1)"), false);
    Accept();
    simulator_.Hear(Bytes("message(mess(SETUP) cstr(VERSION, 'V2') mess(END))"), "the set-up");
    simulator_.Send(Bytes("message(mess(STARTED) cstr(ERRORS) mess(END))"
                          "message(mess(STEP) cstr(POSITION, 'MODEL_DEFINITION') doub(TIME, 0)"
                          "        inte(DATE, 2026, 1, 1, 0, 0, 0) mess(END))"),
                    false);
    master_.Hear(Bytes("reply(1)"), "the reply to the connection");
  }

  void Accept() {
    pollfd waiting{listener_.get(), POLLIN, 0};
    const int patience = static_cast<int>(milliseconds(kPatience).count());
    if (poll(&waiting, 1, patience) != 1) throw Failure("no connection to the simulator");
    simulator_ = Link(Descriptor(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  }

  void SkipMessage() {
    bool ended = false;
    const auto limit = Clock::now() + kPatience;
    const auto number = [&] {
      const std::string bytes = simulator_.Receive(8, limit, ended);
      if (bytes.size() != 8) throw Failure("no request to the simulator");
      return NumberAt<std::uint64_t>(bytes);
    };
    std::uint64_t left = number();
    do {
      const std::uint64_t chunk = number();
      if (simulator_.Receive(chunk, limit, ended).size() != chunk) {
        throw Failure("half a request to the simulator");
      }
      left -= chunk;
    } while (left > 0);
  }

  // One step: its verb acts on the master's link, or with "sim-" before it on the simulator's.
  struct Step {
    Conversation& all;
    Link& link;
    std::string rest;  // of its line
    std::string heard;

    std::string Said() const { return all.Said(rest); }
    void Feed(const char* file) const { Conversation::Feed(all.daemon_.File(file), Said()); }
  };
  struct Verb {
    const char* name;
    void (*take)(const Step& step);
  };
  static const std::vector<Verb>& Verbs() {
    static const std::vector<Verb> verbs = {
        {"pause", [](const Step& step) { std::this_thread::sleep_for(Pause(step.rest)); }},
        {"sim-accept", [](const Step& step) { step.all.Accept(); }},
        {"sim-skip", [](const Step& step) { step.all.SkipMessage(); }},
        {"write-users", [](const Step& step) { step.Feed(".vk_corvane_users"); }},
        {"write-environment", [](const Step& step) { step.Feed(".vk_corvane_env"); }},
        {"say", [](const Step& step) { step.link.Send(step.Said(), false); }},
        {"flood", [](const Step& step) { step.link.Send(step.Said(), true); }},
        {"drip", [](const Step& step) { step.all.Drip(step.link, step.rest); }},
        {"hear", [](const Step& step) { step.link.Hear(step.Said(), step.heard); }},
        {"hear-end", [](const Step& step) { step.link.HearEnd(step.heard); }},
        {"silence", [](const Step& step) { step.link.HearNothing(Pause(step.rest), step.heard); }},
        {"half-close", [](const Step& step) { step.link.HalfClose(); }},
        {"leave", [](const Step& step) { step.link.Close(); }},
        {"reset", [](const Step& step) { step.link.Reset(); }},
    };
    return verbs;
  }

  void Take(const std::string& text) {
    const std::size_t blank = std::min(text.find(' '), text.size());
    const std::string verb = text.substr(0, blank);
    const bool simulator = verb.starts_with("sim-");
    const Step step{*this, simulator ? simulator_ : master_, text.substr(blank),
                    simulator ? "what the simulator hears" : "what the master hears"};
    for (const Verb& one : Verbs()) {
      if (verb == one.name || (simulator && verb.substr(4) == one.name)) return one.take(step);
    }
    throw Failure("unknown step");
  }

  static milliseconds Pause(const std::string& text) { return milliseconds(std::stoul(text)); }

  // One byte a segment, with a pause after each.
  void Drip(const Link& link, const std::string& rest) const {
    std::size_t used = 0;
    const milliseconds pause(std::stoul(rest, &used));
    for (const char byte : Said(rest.substr(used))) {
      link.Send({&byte, 1}, false);
      std::this_thread::sleep_for(pause);
    }
  }

  // Writes into a pipe, once somebody reads from it.
  static void Feed(const std::string& pipe, const std::string& bytes) {
    const auto limit = Clock::now() + kPatience;
    int descriptor = -1;
    while ((descriptor = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
      if (Clock::now() > limit) throw Failure("nobody reads the pipe");
      usleep(2000);
    }
    const Descriptor writer(descriptor);
    if (write(writer.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      throw Failure("nobody takes what is written");
    }
  }

  void EndTalk() {
    if (wanted_.end == "left") {
      master_.Close();
    } else if (!wanted_.refusal.empty()) {
      master_.Hear(Frame(Filled(wanted_.refusal)), "the refusal");
    }
    if (master_.open()) master_.HearEnd("what the master hears at the end");
    simulator_.Close();
    listener_ = Descriptor();
  }

  // --- what came of it ---

  // The end of the connection child; one that does not end is ended.
  std::optional<Ended> AwaitEnd() {
    const auto limit = Clock::now() + kPatience;
    const pid_t daemon = daemon_.daemon().pid();
    while (true) {
      const auto ended = daemon_.watcher().Next(limit);
      if (!ended) break;
      if (ended->parent == daemon) return ended;
      script_ = ended;
    }
    killed_ = true;
    for (const pid_t child : ChildrenOf(daemon)) kill(child, SIGKILL);
    daemon_.watcher().Next(Clock::now() + kPatience);
    throw Failure("the connection child does not end");
  }

  void AwaitEndAnyhow() {
    try {
      AwaitEnd();
    } catch (const Failure&) {
      // the case has failed anyway
    }
  }

  std::string DaemonLog() const {
    std::ifstream file(daemon_.daemon().LogFile(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(log_begin_));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  std::string CommsLog() const {
    std::ifstream file(comms_file_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  std::string CompareWithEnd(std::optional<Ended>& ended) {
    ended = AwaitEnd();
    std::string complaint;
    const auto compare = [&complaint](const std::string& what, const auto& wanted,
                                      const auto& came) {
      if (wanted != came) {
        complaint +=
            what + ": expected " + std::to_string(wanted) + ", came " + std::to_string(came) + "\n";
      }
    };
    const auto bound = [&complaint](const std::string& what, std::int64_t most, std::int64_t came) {
      if (came > most) {
        complaint +=
            what + ": at most " + std::to_string(most) + ", came " + std::to_string(came) + "\n";
      }
    };
    compare("exit status", wanted_.exit, std::int64_t{ended->status});
    if (wanted_.user) compare("account", *wanted_.user, static_cast<std::int64_t>(ended->user));
    if (wanted_.script_exit) {
      // The two end in any order.
      if (!script_) script_ = daemon_.watcher().Next(Clock::now() + kPatience);
      compare("exit status of the script process", *wanted_.script_exit,
              std::int64_t{script_ ? script_->status : -1});
    }
    if (!kSanitized) bound("resident memory in KiB", wanted_.memory * 1024, ended->memory);
    bound("processor time in microseconds", wanted_.processor * 1000 * kPatienceFactor,
          ended->processor);
    CompareText("daemon log", WantedLog(), WithoutTimes(DaemonLog()), complaint);
    CompareText("comms log", WantedComms(), CommsLog(), complaint);
    return complaint;
  }

  static void CompareText(const std::string& what, const std::string& wanted,
                          const std::string& came, std::string& complaint) {
    if (wanted == came) return;
    const auto differ = std::mismatch(wanted.begin(), wanted.end(), came.begin(), came.end());
    complaint += what + ", from byte " + std::to_string(differ.first - wanted.begin()) +
                 " on\n  expected: " + Readable(wanted) + "\n  came:     " + Readable(came) + "\n";
  }

  static std::string WithoutTimes(const std::string& log) {
    static const std::regex begin(
        "^Accepted incoming connection: \\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\n"
        "Answering call in child process: \\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\n");
    const std::string head = log.substr(0, 200);
    std::smatch found;
    if (!std::regex_search(head, found, begin)) return log;
    return log.substr(static_cast<std::size_t>(found.length()));
  }

  std::string WantedLog() const {
    const std::string log = wanted_.log ? *wanted_.log : "${REQUEST}${PERSON}${ARGUMENTS}${HOST}";
    return "Sending back version number: 3\n" + Filled(log);
  }

  std::string WantedComms() const {
    if (wanted_.end.empty() || wanted_.comms_file == "none") return {};
    std::string text;
    if (wanted_.start == "connected") {
      const std::string timeout = ArgumentOf(wanted_.arguments, "-t", "60");
      text = "Received header: 1\nConnect on host: 127.0.0.1" + std::string(1, '\0') +
             ", port: " + std::to_string(port_) + ", timeout: " + timeout + "\n";
    }
    return text + Filled(wanted_.comms) + Outcome();
  }

  std::string Outcome() const {
    if (wanted_.end == "shut down") {
      return "Process loop has exited naturally, going to sleep again ... \n";
    }
    const std::string last = "Request process loop failed: ";
    if (wanted_.end == "left" || wanted_.end == "no frame") {
      const std::string reason = "No or unexpected data received from Corvane\n";
      return reason + last + reason;
    }
    const auto* kind =
        std::find_if(std::begin(kFailedEnds), std::end(kFailedEnds),
                     [this](const auto& one) { return wanted_.end.starts_with(one.begin); });
    if (kind == std::end(kFailedEnds)) throw Failure("unknown end " + wanted_.end);
    const std::string reason =
        std::string(kind->reason) + Filled(wanted_.end.substr(kind->begin.size()));
    const std::string failed = "Failed to handle data packet received from master: " + reason;
    return reason + "\n" + failed + "\n" + last + failed + "\n";
  }

 public:
  static constexpr const char* kUsualScript = "#!/bin/sh\necho HOST=127.0.0.1\n";

 private:
  const Case& wanted_;
  WatchedDaemon& daemon_;
  std::string directory_;
  std::map<std::string, std::string> variables_;
  std::vector<std::string> placed_;
  std::string comms_file_;
  std::int64_t port_ = 0;
  std::uintmax_t log_begin_ = 0;
  Descriptor busy_;
  Descriptor listener_;
  Link master_;
  Link simulator_;
  std::optional<Ended> script_;
  bool killed_ = false;
};

}  // namespace

WatchedDaemon::WatchedDaemon(const std::vector<std::string>& arguments, bool as_root) {
  comms_base_ = std::stoll(ArgumentOf(arguments, "-o", "0"));
  RunningDaemon::Options options;
  options.arguments = arguments;
  if (comms_base_ == 0) {
    comms_base_ = comms_.first();
    options.arguments.insert(options.arguments.end(),
                             {"-o", std::to_string(comms_base_), "-n", "2"});
  } else {
    comms_ports_ = std::stoll(ArgumentOf(arguments, "-n", "100"));
  }
  options.script = Conversation::kUsualScript;
  options.users = "-";
  options.environment = "-";
  const TemporaryDirectory accounts;
  const std::string passwords = accounts.Write("passwd",
                                               "root:x:0:0::/root:/bin/sh\n"
                                               "alice:x:61001:61001::/:/bin/sh\n"
                                               "bob:x:61002:61002::/:/bin/sh\n"
                                               "runner:x:61003:61003::/:/bin/sh\n");
  fs::permissions(passwords, fs::perms(0644));
  options.in_child = [passwords, as_root] {
    CleanEnvironment();
    if (as_root && !UseOwnAccounts(passwords)) _exit(125);
    return 0;
  };
  daemon_ = std::make_unique<RunningDaemon>(options);
  watcher_ = std::make_unique<Watcher>(daemon_->pid());
}

std::int64_t WatchedDaemon::TakeCommsPort() {
  return comms_base_ + connections_++ % comms_ports_;
}

std::string RunCase(const Case& wanted, WatchedDaemon& daemon, Figures& figures) {
  return Conversation(wanted, daemon).Run(figures);
}
