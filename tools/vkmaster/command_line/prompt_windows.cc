#include <windows.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include "master/errors.h"
#include "tools/vkmaster/command_line/interrupt.h"
#include "tools/vkmaster/command_line/prompt.h"
#include "tools/vkmaster/output/output.h"
#include "tools/vkmaster/system/wide.h"

namespace vkmaster {
namespace {

constexpr std::size_t kLongestLine = 8191;
constexpr wchar_t kTab = L'\t';
constexpr wchar_t kCtrlD = L'\x04';
constexpr wchar_t kCtrlZ = L'\x1a';  // what Windows has for the end of an input
const std::wstring kKeys{kTab, kCtrlD, kCtrlZ};
// Milliseconds that a read may take to end after Ctrl-C, and the thread of Ctrl-C after the read.
constexpr DWORD kCtrlCTakes = 500;

// What is common to all of `candidates` at their beginning.
std::string CommonBeginning(const std::vector<std::string>& candidates) {
  std::string common = candidates.front();
  for (const std::string& each : candidates) {
    std::size_t same = 0;
    while (same < common.size() && same < each.size() && common[same] == each[same]) ++same;
    common.resize(same);
  }
  return common;
}

// What replaces the line after a tab key: the one candidate and a blank, or what several have in
// common. The candidates are shown when that adds nothing to the line.
std::string Completed(const std::string& line, const RunNames& names) {
  const std::size_t begin = line.find_last_of(" \t,;") + 1;
  const std::string word = line.substr(begin);
  std::vector<std::string> found;
  try {
    found = Completions(line.substr(0, begin), word, names);
  } catch (const master::Interrupted&) {
    throw;
  } catch (const std::exception&) {
    return line;  // the command itself will say what is wrong with the link
  }
  if (found.empty()) return line;
  if (found.size() == 1) {
    return line.substr(0, begin) + found[0] + (found[0].ends_with('=') ? "" : " ");
  }
  const std::string common = CommonBeginning(found);
  if (common == word) {
    std::string list;
    for (const std::string& each : found) list += each + "  ";
    Tell(stdout, "\n" + list);
  }
  return line.substr(0, begin) + common;
}

// A line that is being typed, on a thread of its own: Ctrl-C ends the console's read, but the end
// of the console does not, and there is little time left then.
class Read {
 public:
  explicit Read(const std::wstring& begun) : line_(begun) {}

  // Reads the line; false when `wake` was raised before its end. `self` is this object, which the
  // thread needs for as long as it reads.
  static bool Await(const std::shared_ptr<Read>& self, HANDLE wake) {
    auto argument = std::make_unique<std::shared_ptr<Read>>(self);
    const HANDLE thread = CreateThread(nullptr, 0, OnThread, argument.get(), 0, nullptr);
    if (thread == nullptr) return true;
    [[maybe_unused]] const auto* const taken = argument.release();
    const std::array<HANDLE, 2> handles{thread, wake};
    const DWORD count = handles.size();
    bool done = WaitForMultipleObjects(count, handles.data(), FALSE, INFINITE) == WAIT_OBJECT_0;
    if (done && !self->read_) WaitForSingleObject(wake, kCtrlCTakes);
    if (!done && WaitForSingleObject(thread, kCtrlCTakes) != WAIT_OBJECT_0) {
      // Where Ctrl-C does not end the read (wine), Enter does.
      PressEnter();
      WaitForSingleObject(thread, kCtrlCTakes);
    }
    CloseHandle(thread);
    return done;
  }

  /// What was typed, with the key that ended it; empty when nothing could be read.
  const std::wstring& line() const { return line_; }

 private:
  static DWORD WINAPI OnThread(void* argument) {
    const std::unique_ptr<std::shared_ptr<Read>> self(
        static_cast<std::shared_ptr<Read>*>(argument));
    (*self)->Run();
    return 0;
  }

  static void PressEnter() {
    INPUT_RECORD key{};
    key.EventType = KEY_EVENT;
    key.Event.KeyEvent.bKeyDown = TRUE;
    key.Event.KeyEvent.wRepeatCount = 1;
    key.Event.KeyEvent.wVirtualKeyCode = VK_RETURN;
    key.Event.KeyEvent.uChar.UnicodeChar = L'\r';
    DWORD written = 0;
    WriteConsoleInputW(GetStdHandle(STD_INPUT_HANDLE), &key, 1, &written);
  }

  void Run() {
    CONSOLE_READCONSOLE_CONTROL control{};
    control.nLength = sizeof(control);
    control.nInitialChars = static_cast<ULONG>(line_.size());
    control.dwCtrlWakeupMask = 1U << kTab | 1U << kCtrlD | 1U << kCtrlZ;
    line_.resize(kLongestLine);
    DWORD got = 0;
    read_ = ReadConsoleW(GetStdHandle(STD_INPUT_HANDLE), line_.data(), kLongestLine, &got,
                         &control) != 0 &&
            got > 0;
    line_.resize(read_ ? got : 0);
  }

  std::wstring line_;
  bool read_ = false;
};

}  // namespace

Prompt::Prompt(std::function<std::string()> text, RunNames names, Interrupt& interrupt)
    : text_(std::move(text)), interrupt_(interrupt), names_(std::move(names)) {}

Prompt::~Prompt() = default;

std::optional<std::string> Prompt::Next() {
  std::wstring begun;
  Tell(stdout, text_());
  while (true) {
    const auto read = std::make_shared<Read>(begun);
    const bool done = Read::Await(read, interrupt_.wake());
    if (interrupt_.signal() != 0) {
      Tell(stdout, "\n");
      if (interrupt_.signal() != SIGINT) return std::nullopt;
      interrupt_.Clear();
      begun.clear();
      Tell(stdout, text_());
      continue;
    }
    const std::wstring line = done ? read->line() : L"";
    if (line.empty()) return std::nullopt;
    const std::size_t key = line.find_first_of(kKeys);
    if (key == std::wstring::npos) return Narrow(line.substr(0, line.find_first_of(L"\r\n")));
    const bool tab = line[key] == kTab;
    if (!tab && key == 0) return std::nullopt;
    begun = line.substr(0, key);
    if (tab) begun = Wide(Completed(Narrow(begun), names_));
    Tell(stdout, "\r" + text_() + Narrow(begun));
  }
}

}  // namespace vkmaster
