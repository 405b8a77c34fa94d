#include "inspect/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include "base/number.h"

namespace inspect {
namespace {

// More than any command line or environment that a system takes by default. What is longer is cut.
constexpr std::size_t kLongest = 4 << 20;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory OpenDirectory(int at, const char* name) {
  Descriptor descriptor(openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor) return nullptr;
  return Directory(fdopendir(descriptor.Release()));
}

// The number that `name` consists of, -1 for other names.
int NumberOf(const char* name) {
  const std::string_view text(name);
  int number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

std::optional<std::string> LinkAt(int directory, const char* name) {
  std::array<char, PATH_MAX> target{};
  const ssize_t size = readlinkat(directory, name, target.data(), target.size());
  if (size < 0) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(size));
}

// The system calls that wait for the descriptor in their first argument.
const std::set<long> kCallsOnDescriptor = {SYS_read,    SYS_readv,  SYS_recvfrom, SYS_recvmsg,
                                           SYS_write,   SYS_writev, SYS_sendto,   SYS_sendmsg,
                                           SYS_connect, SYS_accept, SYS_accept4};

std::optional<ProcessStat> StatIn(int directory) {
  const Descriptor file(openat(directory, "stat", O_RDONLY | O_CLOEXEC));
  std::array<char, 1024> text{};  // a name of 15 bytes and some fifty numbers
  const ssize_t size = file ? read(file.get(), text.data(), text.size()) : -1;
  if (size <= 0) return std::nullopt;
  return ParseStat({text.data(), static_cast<std::size_t>(size)});
}

}  // namespace

std::optional<ProcessStat> ParseStat(std::string_view text) {
  // The name may hold blanks and brackets: it ends at the last bracket.
  const std::size_t open = text.find('(');
  const std::size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
    return std::nullopt;
  }
  ProcessStat stat;
  stat.id.pid = static_cast<pid_t>(NumberIn(std::string(text.substr(0, open)).c_str()));
  stat.name = text.substr(open + 1, close - open - 1);
  std::istringstream rest{std::string(text.substr(close + 1))};
  std::string skipped;
  std::uint64_t user = 0;
  std::uint64_t system = 0;
  rest >> stat.state >> stat.parent >> stat.group >> stat.session;
  for (int field = 7; field < 14; ++field) rest >> skipped;
  rest >> user >> system;
  for (int field = 16; field < 22; ++field) rest >> skipped;
  rest >> stat.id.start;
  if (!rest) return std::nullopt;
  stat.ticks = user + system;
  return stat;
}

Process::Process(Descriptor directory, ProcessStat stat)
    : directory_(std::move(directory)), stat_(std::move(stat)) {}

std::optional<Process> Process::Open(pid_t pid) {
  const std::string name = "/proc/" + std::to_string(pid);
  Descriptor directory(open(name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return std::nullopt;
  std::optional<ProcessStat> stat = StatIn(directory.get());
  if (!stat) return std::nullopt;
  return Process(std::move(directory), std::move(*stat));
}

std::optional<Process> Process::Open(const ProcessId& id) {
  std::optional<Process> process = Open(id.pid);
  if (process && process->stat_.id != id) process.reset();
  return process;
}

bool Process::IsAlive() const {
  const std::optional<ProcessStat> now = StatIn(directory_.get());
  return now && now->state != 'Z' && now->state != 'X';
}

std::optional<std::string> Process::Read(const char* file) const {
  const Descriptor descriptor(openat(directory_.get(), file, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!descriptor) return std::nullopt;
  std::string text;
  std::array<char, 16384> block{};
  while (text.size() < kLongest) {
    const ssize_t size = read(descriptor.get(), block.data(), block.size());
    if (size < 0) return std::nullopt;
    if (size == 0) break;
    text.append(block.data(), static_cast<std::size_t>(size));
  }
  return text;
}

std::optional<uid_t> Process::User() const {
  const std::optional<std::string> status = Read("status");
  const std::size_t line = status ? status->find("\nUid:\t") : std::string::npos;
  if (line == std::string::npos) return std::nullopt;
  std::istringstream fields(status->substr(line + std::string_view("\nUid:").size()));
  uid_t real = 0;
  uid_t effective = 0;
  if (!(fields >> real >> effective)) return std::nullopt;
  return effective;
}

std::vector<std::string> Process::Arguments() const {
  std::vector<std::string> arguments;
  const std::string text = Read("cmdline").value_or("");
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\0', begin), text.size());
    arguments.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return arguments;
}

std::optional<std::string> Process::Link(const char* name) const {
  return LinkAt(directory_.get(), name);
}

std::optional<std::vector<Process::OpenFile>> Process::Files() const {
  const Directory directory = OpenDirectory(directory_.get(), "fd");
  if (!directory) return std::nullopt;
  std::vector<OpenFile> files;
  while (const dirent* entry = readdir(directory.get())) {
    const int number = NumberOf(entry->d_name);
    if (number < 0) continue;
    const std::optional<std::string> target = LinkAt(dirfd(directory.get()), entry->d_name);
    if (target) files.push_back({number, *target});
  }
  return files;
}

std::optional<Process::Call> Process::WaitsIn() const {
  const std::optional<std::string> text = Read("syscall");
  Call call;
  // A process that computes has "running" there; one that waits, the call and its arguments.
  std::istringstream fields(text.value_or(""));
  unsigned long long first = 0;
  if (!(fields >> call.number) || call.number < 0) return std::nullopt;
  fields >> std::hex >> first;
  if (kCallsOnDescriptor.contains(call.number)) call.descriptor = static_cast<int>(first);
  return call;
}

std::optional<std::string> Process::Variable(std::string_view name) const {
  const std::optional<std::string> environment = Read("environ");
  if (!environment) return std::nullopt;
  const std::string wanted = std::string(name) + "=";
  for (std::size_t begin = 0; begin < environment->size();) {
    const std::size_t end = std::min(environment->find('\0', begin), environment->size());
    if (environment->compare(begin, wanted.size(), wanted) == 0) {
      return environment->substr(begin + wanted.size(), end - begin - wanted.size());
    }
    begin = end + 1;
  }
  return std::nullopt;
}

std::vector<ProcessStat> AllProcesses() {
  std::vector<ProcessStat> all;
  const Directory directory = OpenDirectory(AT_FDCWD, "/proc");
  while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
    const int pid = NumberOf(entry->d_name);
    if (pid < 0) continue;
    if (std::optional<Process> process = Process::Open(pid)) all.push_back(process->stat());
  }
  return all;
}

double Seconds(std::uint64_t ticks) {
  static const auto per_second = static_cast<double>(sysconf(_SC_CLK_TCK));
  return static_cast<double>(ticks) / per_second;
}

double StartTime(std::uint64_t ticks) {
  // The clock of the ticks goes on while the machine sleeps, as that of the day does.
  timespec since_boot{};
  timespec day{};
  clock_gettime(CLOCK_BOOTTIME, &since_boot);
  clock_gettime(CLOCK_REALTIME, &day);
  const auto seconds = [](const timespec& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  return seconds(day) - seconds(since_boot) + Seconds(ticks);
}

std::optional<std::uint64_t> InodeIn(std::string_view target, std::string_view kind) {
  const std::string begin = std::string(kind) + ":[";
  if (!target.starts_with(begin) || !target.ends_with(']')) return std::nullopt;
  std::uint64_t inode = 0;
  const char* const end = target.data() + target.size() - 1;
  const auto [stopped, error] = std::from_chars(target.data() + begin.size(), end, inode);
  if (error != std::errc() || stopped != end) return std::nullopt;
  return inode;
}

}  // namespace inspect
