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

// As many as the system follows.
constexpr int kMostLinks = 40;

// A name for what `descriptor` has open, in this process and in one that inherits it.
std::string PathOf(const Descriptor& descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor.get());
}

Descriptor Refuse(int error = EPERM) {
  errno = error;
  return {};
}

Descriptor OpenSource(const FilePlace& place, int links) {
  const Descriptor entry = place.Look();
  struct stat status {};
  if (!entry || fstat(entry.get(), &status) != 0) return {};
  // What was looked at, whatever has the name by now.
  if (S_ISREG(status.st_mode)) {
    return Descriptor(open(PathOf(entry).c_str(), O_RDONLY | O_CLOEXEC));
  }
  // A link of somebody else's may have been put there to have the file that it leads to read.
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
    return Refuse(EEXIST);  // a file is not copied to itself, by cp neither
  }
  Descriptor fresh = place.CreateFresh(0, source.st_mode & 0777U);
  if (fresh || !exists) return fresh;
  if (!S_ISREG(present.st_mode)) return Refuse();
  Descriptor old = place.OpenSole(0, 0, present);
  // Somebody else's file would show him what he may not read himself, and so would one of ours that
  // he may read and has moved there.
  const bool ours = present.st_uid == geteuid() || present.st_uid == source.st_uid;
  const bool shown = (present.st_mode & (S_IRGRP | S_IROTH)) != 0 &&
                     (source.st_mode & S_IROTH) == 0 && place.IsOpenToOthers();
  return !old || (ours && !shown) ? std::move(old) : Refuse();
}

bool RunCp(const Descriptor& source, const Descriptor& target) {
  const std::string command = "cp " + PathOf(source) + " " + PathOf(target);
  struct stat status {};
  fstat(target.get(), &status);
  // The copy of a file that nobody may write to is closed, too, and cp has to open it once more.
  const bool closed = (status.st_mode & S_IWUSR) == 0;
  if (closed) fchmod(target.get(), (status.st_mode & 07777U) | S_IWUSR);
  for (const int descriptor : {source.get(), target.get()}) fcntl(descriptor, F_SETFD, 0);
  const int result = system(command.c_str());  // NOLINT(cert-env33-c): no word of it is a peer's
  if (closed) fchmod(target.get(), status.st_mode & 07777U);
  return result >= 0;
}

// Says why there will be no copy. False when it was refused.
bool Explain(const std::string& file) {
  const bool refused = errno == EPERM;
  perror(file.c_str());
  return !refused;
}

}  // namespace

bool CopyInput(const std::string& source, const std::string& target) {
  // As the system sees them.
  const std::string from = source.substr(0, source.find('\0'));
  const std::string to = target.substr(0, target.find('\0'));
  const std::size_t name = from.rfind('/') + 1;
  // Elsewhere it could be a file of the account's, to be replaced by what a stranger has written.
  const bool beside = to.rfind('/') + 1 == name && to.compare(0, name, from, 0, name) == 0;
  const FilePlace place(from);
  const Descriptor in = beside ? OpenSource(place, 0) : Refuse();
  struct stat status {};
  if (!in || fstat(in.get(), &status) != 0) return Explain(from);
  const Descriptor out = OpenTarget(FilePlace(to.substr(name), place), status);
  if (!out) return Explain(to);
  return RunCp(in, out);
}
