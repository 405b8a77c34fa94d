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
#include <utility>

#include "log/file_place.h"
#include "log/standard_output.h"
#include "log/write.h"

namespace {

constexpr mode_t kPublic = 0666;

// Lets everybody read and write a log, whatever the umask has left of its mode.
Descriptor Publish(Descriptor file) {
  if (file) fchmod(file.get(), kPublic);
  return file;
}

// Opens the log that is there already.
Descriptor OpenStanding(const FilePlace& place) {
  struct stat status {};
  Descriptor file = place.OpenSole(O_APPEND, 0, status);
  if (file && !place.IsOpenToOthers()) return Publish(std::move(file));
  // Somebody else can have put the file there to have it written to: a file of his own, or one of
  // this user's that nobody else may read and that he has moved there. The latter is written to,
  // but not opened to all.
  if (status.st_uid != geteuid()) file.Reset();
  return file;
}

Descriptor Create(const FilePlace& place) {
  struct stat status {};
  return Publish(place.OpenSole(O_APPEND | O_CREAT | O_EXCL, kPublic, status));
}

Descriptor CreateFresh(const FilePlace& place) {
  Descriptor fresh = place.CreateFresh(O_APPEND, kPublic);
  if (fresh || errno != EISDIR || !place.Remove(AT_REMOVEDIR)) return Publish(std::move(fresh));
  // An empty directory is removed like a file.
  return Publish(place.CreateFresh(O_APPEND, kPublic));
}

Descriptor OpenLog(const FilePlace& place, bool remove_old) {
  Descriptor fresh = remove_old ? CreateFresh(place) : Create(place);
  if (fresh) return fresh;
  // A full disk may have no room for a second file, but for one in place of the first.
  if (remove_old && place.Remove(0)) return Create(place);
  // Where the directory takes no new files, the old one may still be written to.
  return OpenStanding(place);
}

// The text of a value as a standard stream writes it by default. Numbers are written into `room`
// rather than into memory that is asked for: the line may be about memory that is not there.
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
std::string_view Text(unsigned long value, Room& room) {
  return IntegerText(value, room);
}
std::string_view Text(double value, Room& room) {
  snprintf(room.data(), room.size(), "%g", value);
  return room.data();
}

StandardOutput output;

}  // namespace

flog::flog(const std::string& file, bool remove_old) {
  SetFile(file, remove_old);
}

void flog::SetFile(const std::string& file, bool remove_old) {
  file_.Reset();
  silent_ = false;
  try {
    // The system ends the name at the first zero byte.
    const std::string name = file.substr(0, file.find('\0'));
    if (!name.empty()) file_ = OpenLog(FilePlace(name), remove_old);
  } catch (const std::bad_alloc&) {
    // Disabled, as without a file.
  }
  disabled_ = file_ ? 0 : 1;
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
  if (!silent_) WriteAll(file_.get(), text);
  output.Print(text);
  return *this;
}

template flog& flog::operator<<(std::string);
template flog& flog::operator<<(const char*);
template flog& flog::operator<<(char*);
template flog& flog::operator<<(int);
template flog& flog::operator<<(unsigned long);  // request codes
template flog& flog::operator<<(double);
