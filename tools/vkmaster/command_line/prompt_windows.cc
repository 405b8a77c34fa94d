#include <windows.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <utility>

#include "tools/vkmaster/command_line/interrupt.h"
#include "tools/vkmaster/command_line/prompt.h"
#include "tools/vkmaster/output/output.h"
#include "tools/vkmaster/system/wide.h"

namespace vkmaster {
namespace {

constexpr std::size_t kLongestLine = 8191;
constexpr wchar_t kTab = L'\t';
constexpr wchar_t kEndOfInput = L'\x1a';  // Ctrl-Z
// The thread that Windows makes for Ctrl-C may come after the read that it has ended.
constexpr DWORD kCtrlCTakes = 1000;

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

// What replaces the line after a tab key: one candidate and a blank, or what several have in
// common. These are shown when that is nothing new.
std::string Completed(const std::string& line, const RunNames& names) {
  const std::size_t begin = line.find_last_of(" \t,;") + 1;
  const std::string word = line.substr(begin);
  std::vector<std::string> found;
  try {
    found = Completions(line.substr(0, begin), word, names);
  } catch (const std::exception&) {
    return line;  // the command itself will say what is wrong with the link
  }
  if (found.empty()) return line;
  if (found.size() == 1)
    return line.substr(0, begin) + found[0] + (found[0].ends_with('=') ? "" : " ");
  const std::string common = CommonBeginning(found);
  if (common == word) {
    std::string list;
    for (const std::string& each : found) list += each + "  ";
    Tell(stdout, "\n" + list);
  }
  return line.substr(0, begin) + common;
}

}  // namespace

Prompt::Prompt(std::function<std::string()> text, RunNames names, Interrupt& interrupt)
    : text_(std::move(text)), interrupt_(interrupt), names_(std::move(names)) {}

Prompt::~Prompt() = default;

std::optional<std::string> Prompt::Next() {
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  std::wstring line;
  Tell(stdout, text_());
  while (true) {
    CONSOLE_READCONSOLE_CONTROL control{};
    control.nLength = sizeof(control);
    control.nInitialChars = static_cast<ULONG>(line.size());
    control.dwCtrlWakeupMask = 1U << kTab;
    line.resize(kLongestLine);
    DWORD got = 0;
    const bool read = ReadConsoleW(input, line.data(), kLongestLine, &got, &control) != 0;
    line.resize(got);
    if (read && got == 0) WaitForSingleObject(interrupt_.wake(), kCtrlCTakes);
    if (interrupt_.signal() != 0) {
      Tell(stdout, "\n");
      if (interrupt_.signal() != SIGINT) return std::nullopt;
      interrupt_.Clear();
      line.clear();
      Tell(stdout, text_());
      continue;
    }
    if (!read || got == 0 || line.front() == kEndOfInput) return std::nullopt;
    if (const std::size_t tab = line.find(kTab); tab != std::wstring::npos) {
      line = Wide(Completed(Narrow(line.substr(0, tab)), names_));
      Tell(stdout, "\r" + text_() + Narrow(line));
      continue;
    }
    return Narrow(line.substr(0, line.find_first_of(L"\r\n")));
  }
}

}  // namespace vkmaster
