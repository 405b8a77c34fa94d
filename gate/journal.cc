#include "gate/journal.h"

#include <fcntl.h>
#ifdef _WIN32
#include <io.h>
#else
#include <poll.h>
#include <unistd.h>
#endif

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

#include "gate/clock.h"

namespace gate {
namespace {

// A name in a certificate is short, and so is a claim that could be one.
constexpr std::size_t kLongestText = 300;

// A line that is longer all the same is written with shorter texts, and fewer of them in a list.
constexpr std::size_t kLongestLine = 4000;
constexpr std::size_t kShortText = 30;
constexpr std::size_t kShortList = 20;

int OpenToAppend(const std::string& file) {
#ifdef _WIN32
  return _open(file.c_str(), _O_WRONLY | _O_CREAT | _O_APPEND | _O_BINARY, 0600);
#else
  return open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0640);
#endif
}

void CloseFile(int descriptor) {
#ifdef _WIN32
  _close(descriptor);
#else
  close(descriptor);
#endif
}

Json Cut(const Json& value, std::size_t most) {
  Json cut = value;
  if (cut.is_string() && cut.get_ref<const std::string&>().size() > most) {
    cut = cut.get<std::string>().substr(0, most) + "...";
  }
  if (cut.is_array() && most == kShortText && cut.size() > kShortList) {
    cut.get_ref<Json::array_t&>().resize(kShortList);
    cut.push_back("...");
  }
  if (cut.is_structured()) {
    for (Json& item : cut) item = Cut(item, most);
  }
  return cut;
}

}  // namespace

Journal::Journal(std::string file) : file_(std::move(file)), descriptor_(OpenToAppend(file_)) {
  if (descriptor_ < 0) {
    throw std::runtime_error(file_ + ": " + std::generic_category().message(errno));
  }
}

Journal::~Journal() {
  if (!file_.empty()) CloseFile(descriptor_);
}

void Journal::Write(const char* event, const Json& fields) {
  Json line{{"time", TimeText(WallTime().count())}, {"event", event}};
  line.update(fields);
  if (left_out_ > 0) line["lines_left_out"] = left_out_;
  std::string text = TextOf(Cut(line, kLongestText));
  if (text.size() > kLongestLine) text = TextOf(Cut(line, kShortText));
  if (WriteLine(text + "\n")) {
    left_out_ = 0;
  } else {
    ++left_out_;
  }
}

bool Journal::WriteLine(const std::string& line) const {
  if (descriptor_ < 0) return true;
#ifdef _WIN32
  return _write(descriptor_, line.data(), static_cast<unsigned>(line.size())) ==
         static_cast<int>(line.size());
#else
  // A pipe that takes anything takes 4,096 bytes, which no line has, at once and whole.
  pollfd room{descriptor_, POLLOUT, 0};
  if (poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0) return false;
  return write(descriptor_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
#endif
}

void Journal::Reopen() {
  if (file_.empty()) return;
  const int fresh = OpenToAppend(file_);
  if (fresh >= 0) CloseFile(std::exchange(descriptor_, fresh));
}

bool ReplaceWhole(const std::string& file, const std::string& text) {
  const std::string fresh = file + ".new";
  std::error_code error;
  std::filesystem::remove(fresh, error);
#ifdef _WIN32
  const char* const mode = "wb";
#else
  const char* const mode = "wbxe";  // x: a new file, or none
#endif
  std::FILE* const out = std::fopen(fresh.c_str(), mode);
  if (out == nullptr) return false;
  const bool whole = std::fwrite(text.data(), 1, text.size(), out) == text.size();
  if (std::fclose(out) != 0 || !whole) return false;
  std::filesystem::rename(fresh, file, error);
  return !error;
}

std::string TextOf(const Json& document) {
  return document.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string TimeText(std::int64_t milliseconds) {
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
#ifdef _WIN32
  gmtime_s(&parts, &seconds);
#else
  gmtime_r(&seconds, &parts);
#endif
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 48> whole{};
  std::snprintf(whole.data(), whole.size(), "%s.%03dZ", text.data(),
                static_cast<int>(milliseconds % 1000));
  return whole.data();
}

}  // namespace gate
