#include "log/flog.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <new>
#include <string_view>
#include <type_traits>

#include "log/file_place.h"
#include "log/standard_output.h"
#include "log/write.h"

namespace {

constexpr mode_t kPublic = 0666;

int Publish(int descriptor) {
  if (descriptor >= 0) fchmod(descriptor, kPublic);  // whatever the umask
  return descriptor;
}

int OpenStanding(const FilePlace& place) {
  struct stat status {};
  const int descriptor = place.OpenSole(O_APPEND, 0, status);
  if (descriptor < 0) return -1;
  if (!place.IsOpenToOthers()) return Publish(descriptor);
  // Somebody else may have put there what stands there, to have it written to: a file of his own,
  // or one of ours, moved there, that only we may read. Ours is written to, but not opened to all.
  if (status.st_uid == geteuid()) return descriptor;
  close(descriptor);
  return -1;
}

int Create(const FilePlace& place) {
  struct stat status {};
  return Publish(place.OpenSole(O_APPEND | O_CREAT | O_EXCL, kPublic, status));
}

int CreateFresh(const FilePlace& place) {
  const int fresh = place.CreateFresh(O_APPEND, kPublic);
  if (fresh >= 0 || errno != EISDIR || !place.Remove(AT_REMOVEDIR)) return Publish(fresh);
  // An empty directory goes the way it would with remove().
  return Publish(place.CreateFresh(O_APPEND, kPublic));
}

int OpenLog(const FilePlace& place, bool removeOld) {
  const int fresh = removeOld ? CreateFresh(place) : Create(place);
  if (fresh >= 0) return fresh;
  // There may be room for one file only, the old one.
  if (removeOld && place.Remove(0)) return Create(place);
  // A file may be writable in a directory that is not.
  return OpenStanding(place);
}

// Values as a standard stream writes them by default, in `room` where they need any: what is
// logged may be that there is no memory left.
using Room = std::array<char, 32>;

std::string_view Text(const std::string& value, Room& /*room*/) {
  return value;
}
std::string_view Text(const char* value, Room& /*room*/) {
  return value;
}
template <class Integer>
std::string_view IntegerText(Integer value, Room& room) {
  const auto end = std::to_chars(room.data(), room.data() + room.size(), value).ptr;
  return {room.data(), static_cast<std::size_t>(end - room.data())};
}
std::string_view Text(int value, Room& room) {
  return IntegerText(value, room);
}
std::string_view Text(unsigned long value, Room& room) {  // NOLINT(google-runtime-int)
  return IntegerText(value, room);
}
std::string_view Text(double value, Room& room) {
  snprintf(room.data(), room.size(), "%g", value);
  return room.data();
}

StandardOutput output;

}  // namespace

flog::flog(const std::string& file, bool removeOld) {
  SetFile(file, removeOld);
}

flog::~flog() {
  Close();
}

void flog::Close() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

void flog::SetFile(const std::string& file, bool removeOld) {
  Close();
  silent_ = false;
  try {
    // As the system sees the name.
    const std::string name = file.substr(0, file.find('\0'));
    if (!name.empty()) descriptor_ = OpenLog(FilePlace(name), removeOld);
  } catch (const std::bad_alloc&) {
    // Disabled, as without a file.
  }
  disabled_ = descriptor_ < 0 ? 1 : 0;
  if (disabled_ == 0) output.Inspect();
}

template <class T>
flog& flog::operator<<(T value) {
  if (disabled_ > 0) return *this;
  if constexpr (std::is_pointer_v<T>) {
    if (value == nullptr) {
      silent_ = true;
      output.Silence();
      return *this;
    }
  }
  Room room;
  const std::string_view text = Text(value, room);
  if (!silent_) WriteAll(descriptor_, text);
  output.Print(text);
  return *this;
}

template flog& flog::operator<<(std::string);
template flog& flog::operator<<(const char*);
template flog& flog::operator<<(char*);
template flog& flog::operator<<(int);
template flog& flog::operator<<(unsigned long);  // NOLINT(google-runtime-int): the request code
template flog& flog::operator<<(double);
