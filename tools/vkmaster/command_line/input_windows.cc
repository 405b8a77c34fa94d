#include <windows.h>

#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "tools/vkmaster/command_line/input.h"
#include "tools/vkmaster/command_line/interrupt.h"

namespace vkmaster {
namespace {

// What has been read and not yet given away. A read of a pipe cannot be waited for together with an
// event; so a thread reads, and is left to the end of the process when nobody wants more.
class Reader {
 public:
  Reader() : arrived_(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() { CloseHandle(arrived_); }

  HANDLE arrived() const { return arrived_; }

  void Read() {
    std::array<char, 4096> part{};
    DWORD got = 0;
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    while (ReadFile(input, part.data(), part.size(), &got, nullptr) != 0 && got > 0) {
      Put(std::string(part.data(), got), false);
    }
    Put("", true);
  }

  /// All that has come since the last call; nothing at the end.
  std::optional<std::string> Take() {
    const std::lock_guard lock(mutex_);
    if (ended_ && text_.empty()) return std::nullopt;
    return std::exchange(text_, {});
  }

 private:
  void Put(const std::string& text, bool end) {
    const std::lock_guard lock(mutex_);
    text_ += text;
    ended_ = end;
    SetEvent(arrived_);
  }

  HANDLE arrived_;
  std::mutex mutex_;
  std::string text_;
  bool ended_ = false;
};

class PipedLines : public LineSource {
 public:
  explicit PipedLines(HANDLE wake) : wake_(wake) {
    std::thread([reader = reader_] { reader->Read(); }).detach();
  }

  std::optional<std::string> Next() override {
    while (true) {
      if (const std::size_t end = buffer_.find('\n'); end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return line;
      }
      if (const auto more = Wait()) {
        buffer_ += *more;
        continue;
      }
      if (buffer_.empty()) return std::nullopt;
      return std::exchange(buffer_, {});  // the last line may have no newline
    }
  }

 private:
  // Half a line that has come when woken is dropped.
  std::optional<std::string> Wait() {
    if (auto text = reader_->Take(); !text || !text->empty()) return text;
    const std::array<HANDLE, 2> handles{wake_, reader_->arrived()};
    if (WaitForMultipleObjects(handles.size(), handles.data(), FALSE, INFINITE) == WAIT_OBJECT_0) {
      buffer_.clear();
      return std::nullopt;
    }
    return reader_->Take();
  }

  HANDLE wake_;
  std::shared_ptr<Reader> reader_ = std::make_shared<Reader>();
  std::string buffer_;
};

}  // namespace

std::unique_ptr<LineSource> StandardInput(const Interrupt& interrupt) {
  return std::make_unique<PipedLines>(interrupt.wake());
}

}  // namespace vkmaster
