#include "daemon/input_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/descriptor.h"
#include "log/file_place.h"

namespace {

// The system itself follows no longer chain of links.
constexpr int kMostLinks = 40;

// A name that opens what `descriptor` has open, in this process and in a child that inherits it.
std::string PathOf(const Descriptor& descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor.get());
}

// EPERM stands for what is refused for safety: see Explain().
Descriptor Refuse(int error = EPERM) {
  errno = error;
  return {};
}

Descriptor OpenSource(const FilePlace& place, int links) {
  const Descriptor entry = place.Look();
  struct stat status {};
  if (!entry || fstat(entry.get(), &status) != 0) return {};
  // Opens the file that was looked at: another one may have the name by now.
  if (S_ISREG(status.st_mode)) {
    return Descriptor(open(PathOf(entry).c_str(), O_RDONLY | O_CLOEXEC));
  }
  // A link that somebody else has made may lead to a file that only this account may read: its
  // maker would find the content in the copy.
  const bool ours = status.st_uid == geteuid() || status.st_uid == 0;
  if (!S_ISLNK(status.st_mode) || !ours) return Refuse();
  if (links == kMostLinks) return Refuse(ELOOP);
  std::array<char, PATH_MAX> text{};
  const ssize_t size = readlinkat(entry.get(), "", text.data(), text.size());
  if (size < 0) return {};
  const std::string file(text.data(), static_cast<std::size_t>(size));
  return OpenSource(FilePlace(file, place), links + 1);
}

Descriptor OpenTarget(const FilePlace& place, const struct stat& source) {
  const Descriptor entry = place.Look();
  struct stat present {};
  const bool exists = entry && fstat(entry.get(), &present) == 0;
  if (exists && present.st_dev == source.st_dev && present.st_ino == source.st_ino) {
    return Refuse(EEXIST);  // source and target are one file, which cp refuses as well
  }
  Descriptor fresh = place.CreateFresh(0, source.st_mode & 0777U);
  if (fresh || !exists) return fresh;
  if (!S_ISREG(present.st_mode)) return Refuse();
  Descriptor old = place.OpenSole(0, 0, present);
  // The copy must not show the source to people who may not read it. A file of somebody else's
  // would show it to its owner. A file of ours may have been moved there by somebody who may read
  // it.
  const bool ours = present.st_uid == geteuid() || present.st_uid == source.st_uid;
  const bool shown = (present.st_mode & (S_IRGRP | S_IROTH)) != 0 &&
                     (source.st_mode & S_IROTH) == 0 && place.IsOpenToOthers();
  return !old || (ours && !shown) ? std::move(old) : Refuse();
}

bool RunCp(const Descriptor& source, const Descriptor& target) {
  const std::string command = "cp " + PathOf(source) + " " + PathOf(target);
  struct stat status {};
  fstat(target.get(), &status);
  // The copy of a write-protected file is write-protected, too. cp has to open it once more, so the
  // protection waits until cp has ended.
  const bool closed = (status.st_mode & S_IWUSR) == 0;
  if (closed) fchmod(target.get(), (status.st_mode & 07777U) | S_IWUSR);
  for (const int descriptor : {source.get(), target.get()}) fcntl(descriptor, F_SETFD, 0);
  const int result = system(command.c_str());  // no word of the command comes from a peer
  if (closed) fchmod(target.get(), status.st_mode & 07777U);
  return result >= 0;
}

// Prints why there will be no copy. False when that was refused for safety. Any other reason is one
// that cp would have failed for, and what cp fails for is not judged.
bool Explain(const std::string& file) {
  const bool refused = errno == EPERM;
  perror(file.c_str());
  return !refused;
}

}  // namespace

bool CopyInput(const std::string& source, const std::string& target) {
  // The system ends names at the first zero byte.
  const std::string from = source.substr(0, source.find('\0'));
  const std::string to = target.substr(0, target.find('\0'));
  const std::size_t name = from.rfind('/') + 1;
  // The target has to be in the source's directory. A root name of the master's could lead
  // elsewhere, and the copy of what a stranger has written would replace a file of the account.
  const bool beside = to.rfind('/') + 1 == name && to.compare(0, name, from, 0, name) == 0;
  const FilePlace place(from);
  const Descriptor in = beside ? OpenSource(place, 0) : Refuse();
  struct stat status {};
  if (!in || fstat(in.get(), &status) != 0) return Explain(from);
  const Descriptor out = OpenTarget(FilePlace(to.substr(name), place), status);
  if (!out) return Explain(to);
  return RunCp(in, out);
}
