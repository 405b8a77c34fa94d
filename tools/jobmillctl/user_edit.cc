#include "tools/jobmillctl/user_edit.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <thread>

#include "base/descriptor.h"
#include "tools/jobmillctl/command.h"

namespace jobmillctl {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

[[noreturn]] void Fail(const std::string& what) {
  const std::string reason = strerror(errno);
  throw Failed(what + ": " + reason + "; nothing was changed");
}

// Holds the directory of the file against other edits. The file itself cannot be held: each edit
// puts another one in its place.
Descriptor Lock(const std::string& directory) {
  Descriptor locked(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!locked) Fail("cannot open the directory " + directory);
  const auto end = steady_clock::now() + std::chrono::seconds(10);
  while (flock(locked.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK || steady_clock::now() > end) Fail("cannot lock " + directory);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return locked;
}

// A directory for the new file, under the name by which the daemon's reader looks for it. It goes
// with the object, and the file too if that is still there.
class Draft {
 public:
  explicit Draft(const std::string& beside) : directory_(beside + "/.users-XXXXXX") {
    if (mkdtemp(directory_.data()) == nullptr) Fail("cannot write in " + beside);
  }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;
  ~Draft() {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }

  const std::string& directory() const { return directory_; }
  std::string file() const { return directory_ + "/.vk_corvane_users"; }

  void Write(const std::string& text, const std::string& original) const {
    struct stat status {};
    if (stat(original.c_str(), &status) != 0) Fail("cannot look at " + original);
    const Descriptor output(open(file().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!output ||
        write(output.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      Fail("cannot write in " + directory_);
    }
    // The owner first: a change of it takes bits of the mode away.
    if (fchown(output.get(), status.st_uid, status.st_gid) != 0 ||
        fchmod(output.get(), status.st_mode & 07777) != 0) {
      Fail("cannot keep owner and mode of " + original);
    }
    if (fsync(output.get()) != 0) Fail("cannot write in " + directory_);
  }

 private:
  std::string directory_;
};

inspect::UserFile Read(const std::string& directory) {
  inspect::UserFile file(directory);
  if (file.error() == ENOENT) throw Failed(file.name() + " is not there");
  if (file.error() != 0) {
    errno = file.error();
    Fail("cannot read " + file.name());
  }
  return file;
}

}  // namespace

void EditUserFile(const std::string& directory,
                  const std::function<bool(const inspect::UserFile& file,
                                           std::vector<std::string>& lines)>& change) {
  const std::string original = inspect::UserFile(directory).name();
  const std::string place = fs::path(original).parent_path();
  const Descriptor locked = Lock(place);
  const inspect::UserFile file = Read(directory);
  std::vector<std::string> lines = file.lines();
  if (!change(file, lines)) return;

  const std::size_t wanted = file.records().size() + lines.size() - file.lines().size();
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  const Draft draft(place);
  draft.Write(text, original);
  if (Read(draft.directory()).records().size() != wanted) {
    throw Failed("the daemon would not read all records; nothing was changed");
  }
  if (Read(directory).lines() != file.lines()) {
    throw Failed(original + " was changed by somebody else meanwhile; nothing was changed");
  }
  if (rename(draft.file().c_str(), original.c_str()) != 0) Fail("cannot replace " + original);
  fsync(locked.get());
}

}  // namespace jobmillctl
