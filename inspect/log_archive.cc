#include "inspect/log_archive.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <system_error>
#include <tuple>
#include <utility>

#include "base/descriptor.h"
#include "base/number.h"
#include "inspect/connection_log.h"
#include "inspect/file.h"
#include "inspect/run_file.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kName = "VKJobmill_";
constexpr std::string_view kStarted = "Daemon started: ";
constexpr std::string_view kTimes[] = {
    kStarted, "Accepted incoming connection: ", "Answering call in child process: "};

// More than any date or time, read as a number, that the name of a rotated file tells. The
// difference is the file's age.
constexpr long kLatestDate = 99'999'999'999;

// A compressed file can hold a thousand times its size.
constexpr std::int64_t kMostOfPart = std::int64_t{1} << 30;
constexpr std::size_t kBlock = 1 << 18;
constexpr std::size_t kHead = 1 << 18;
// The longest line that the daemon writes holds a field of 64 KiB.
constexpr std::size_t kMostOfLine = 1 << 20;

// A file of a log, or why it is none. zlib reads what is not compressed as it is.
class Reader {
 public:
  explicit Reader(const std::string& file) : file_(file), error_(file_.error()) {
    if (!error_.empty()) return;
    Descriptor copy(dup(file_.descriptor()));
    stream_.reset(copy ? gzdopen(copy.get(), "rb") : nullptr);
    if (stream_) {
      copy.Release();
    } else {
      error_ = "it cannot be opened once more";
    }
  }

  const std::string& error() const { return error_; }
  const struct stat& status() const { return file_.status(); }

  // The next block; empty at the end, and when reading fails, which error() tells.
  std::string Read() {
    std::string block(kBlock, '\0');
    if (!error_.empty()) return {};
    if (total_ > kMostOfPart) {
      error_ = "it holds more than 1 GiB; the rest is left out";
      return {};
    }
    const int size = gzread(stream_.get(), block.data(), static_cast<unsigned>(block.size()));
    int code = Z_OK;
    gzerror(stream_.get(), &code);
    if (size < 0 || code != Z_OK) error_ = "it is damaged";
    block.resize(static_cast<std::size_t>(std::max(size, 0)));
    total_ += size;
    return block;
  }

 private:
  struct Close {
    void operator()(gzFile_s* stream) const { gzclose(stream); }
  };
  RunFile file_;
  std::string error_;
  std::unique_ptr<gzFile_s, Close> stream_;
  std::int64_t total_ = 0;
};

// What a file is by its name: "VKJobmill_5000.log", "VKJobmill_5000.previous.log.3.gz", ...
std::optional<LogPart> PartOf(const std::string& file) {
  std::string_view name = std::string_view(file).substr(file.rfind('/') + 1);
  if (!name.starts_with(kName)) return std::nullopt;
  name.remove_prefix(kName.size());
  const std::size_t digits = name.find_first_not_of("0123456789");
  if (digits == 0 || digits > 5) return std::nullopt;
  LogPart part;
  part.file = file;
  part.port = static_cast<int>(NumberIn(std::string(name.substr(0, digits)).c_str()));
  name.remove_prefix(digits);
  part.previous = name.starts_with(".previous.log");
  name.remove_prefix(part.previous ? 9 : 0);
  if (!name.starts_with(".log")) return std::nullopt;
  name.remove_prefix(4);
  if (name.empty()) return part;
  // ".3.gz", or "-20261121.gz".
  const long number = NumberIn(std::string(name.substr(1)).c_str());
  part.age = name.front() == '-' ? kLatestDate - number : number;
  return name.front() == '-' || name.front() == '.' ? std::optional(part) : std::nullopt;
}

// Finds out what the beginning of a part tells. Returns why that failed; empty when it did not.
std::string Inspect(LogPart& part) {
  Reader reader(part.file);
  if (!reader.error().empty()) return reader.error();
  part.owner = reader.status().st_uid;
  part.changed = reader.status().st_mtime;
  std::string head;
  for (std::string block = reader.Read(); !block.empty(); block = reader.Read()) {
    head += block;
    if (head.size() >= kHead) break;
  }
  if (head.starts_with("BZh") ||
      head.starts_with("\xfd"
                       "7zXZ") ||
      head.starts_with("\x28\xb5\x2f\xfd")) {
    return "it is compressed by another program than gzip";
  }
  part.starts = head.starts_with("\n" + std::string(kStarted));
  for (const std::string_view line : Lines(head)) {
    for (const std::string_view label : kTimes) {
      if (!part.first && line.starts_with(label)) part.first = TimeIn(line.substr(label.size()));
    }
    if (part.first) break;
  }
  return reader.error();
}

bool IsTrusted(const LogPart& part, const Runs& now) {
  struct stat directory {};
  const std::string name = part.file.substr(0, part.file.rfind('/') + 1);
  if (stat(name.c_str(), &directory) == 0 && (directory.st_mode & S_IWOTH) == 0) return true;
  return part.owner == 0 || part.owner == geteuid() ||
         std::ranges::any_of(now.daemons, [&](const Daemon& daemon) {
           return daemon.options.listen_port == part.port && daemon.user == part.owner;
         });
}

// Puts the parts in the order in which they were written. The part of the previous start may tell
// no time: it comes right before the part that the present start has begun.
void Sort(std::vector<LogPart>& parts) {
  const auto time = [](const LogPart& part) { return part.first.value_or(part.changed); };
  std::ranges::sort(parts, [&](const LogPart& a, const LogPart& b) {
    return std::tuple(time(a), !a.previous, -a.age) < std::tuple(time(b), !b.previous, -b.age);
  });
  const auto timeless =
      std::ranges::find_if(parts, [](const LogPart& part) { return part.previous && !part.first; });
  const auto start = std::find_if(parts.rbegin(), parts.rend(), [](const LogPart& part) {
    return part.starts && !part.previous;
  });
  if (timeless == parts.end() || start == parts.rend()) return;
  const auto begin = start.base() - 1;
  if (timeless > begin) std::rotate(begin, timeless, timeless + 1);
}

}  // namespace

std::vector<std::vector<LogPart>> FindLogs(const Runs& now, double since,
                                           const LogDirectories& directories,
                                           std::vector<std::string>& missing) {
  std::vector<std::string> files;
  for (const std::string& directory : directories.all) {
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
      if (PartOf(entry->path())) files.push_back(entry->path());
    }
    if (error && error != std::errc::no_such_file_or_directory) {
      missing.push_back(directory + ": " + error.message());
    }
  }
  std::ranges::sort(files);
  // The log of a daemon that has mounts of its own is found through its process only.
  for (const Daemon& daemon : now.daemons) {
    if (!daemon.log.empty()) files.push_back(daemon.log);
  }
  std::map<std::pair<std::string, int>, std::vector<LogPart>> logs;
  std::set<std::pair<dev_t, ino_t>> seen;
  std::map<std::string, int> strangers;  // files of others, by directory
  for (const std::string& file : files) {
    auto part = PartOf(file);
    struct stat status {};
    if (!part || lstat(file.c_str(), &status) != 0 || status.st_size == 0 ||
        !seen.emplace(status.st_dev, status.st_ino).second ||
        static_cast<double>(status.st_mtime) < since) {
      continue;
    }
    const std::string error = Inspect(*part);
    if (!error.empty() && !part->first) {
      missing.push_back(std::string(file).append(": ").append(error));
      continue;
    }
    if (!IsTrusted(*part, now)) {
      ++strangers[file.substr(0, file.rfind('/'))];
      continue;
    }
    logs[{file.substr(0, file.rfind('/')), part->port}].push_back(std::move(*part));
  }
  for (const auto& [directory, count] : strangers) {
    missing.push_back(directory + ": everybody may put files there; " + std::to_string(count) +
                      " that look like logs belong to accounts without a daemon and are left out");
  }
  std::vector<std::vector<LogPart>> all;
  for (auto& [place, parts] : logs) {
    Sort(parts);
    all.push_back(std::move(parts));
  }
  return all;
}

std::string ReadLines(const LogPart& part, std::string& rest,
                      const std::function<void(std::string_view)>& take) {
  Reader reader(part.file);
  for (std::string block = reader.Read(); !block.empty(); block = reader.Read()) {
    rest += block;
    std::string_view text = rest;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
      take(text.substr(0, end));
      text.remove_prefix(end + 1);
    }
    rest.erase(0, rest.size() - text.size());
    if (rest.size() > kMostOfLine) rest.resize(kMostOfLine);
  }
  return reader.error();
}

}  // namespace inspect
