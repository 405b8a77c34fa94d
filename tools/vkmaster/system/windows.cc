#include <windows.h>
// After windows.h, which it needs.
#include <fcntl.h>
#include <io.h>
#include <lmcons.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/system/wide.h"

namespace vkmaster {
namespace {

HANDLE HandleOf(std::FILE* stream) {
  return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
}

// With whole texts at once no character is cut in two on its way to the console.
constexpr std::size_t kBuffer = 65536;

constexpr int kHangUp = 1;  // SIGHUP, which Windows does not have

void (*g_on_interrupt)(int signal) = nullptr;

// Windows calls this on a thread that it makes for each event.
BOOL WINAPI OnControl(DWORD type) {
  const bool typed = type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT;
  g_on_interrupt(type == CTRL_C_EVENT ? SIGINT : type == CTRL_BREAK_EVENT ? SIGTERM : kHangUp);
  // Windows ends the process when this returns, or a few seconds later: time for the shutdown.
  if (!typed) Sleep(INFINITE);
  return TRUE;
}

}  // namespace

std::wstring Wide(std::string_view text) {
  const int size = static_cast<int>(text.size());
  std::wstring wide(
      static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0)),
      L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

std::string Narrow(std::wstring_view text) {
  const int size = static_cast<int>(text.size());
  std::string narrow(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), size,
                                                                  nullptr, 0, nullptr, nullptr)),
                     '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), size, narrow.data(), static_cast<int>(narrow.size()),
                      nullptr, nullptr);
  return narrow;
}

std::filesystem::path PathOf(const std::string& name) {
  return Wide(name);
}

std::FILE* OpenToWrite(const std::string& path) {
  return _wfopen(Wide(path).c_str(), L"wb");
}

DirectoryLock::DirectoryLock(const std::string& directory)
    : handle_(reinterpret_cast<std::intptr_t>(
          CreateFileW((PathOf(directory) / ".vkmaster.lock").c_str(), GENERIC_WRITE, 0, nullptr,
                      OPEN_ALWAYS, FILE_ATTRIBUTE_HIDDEN | FILE_FLAG_DELETE_ON_CLOSE, nullptr))) {
  held_ = reinterpret_cast<HANDLE>(handle_) != INVALID_HANDLE_VALUE ||
          GetLastError() != ERROR_SHARING_VIOLATION;
}

DirectoryLock::~DirectoryLock() {
  CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

std::string AccountName() {
  std::array<wchar_t, UNLEN + 1> name{};
  DWORD size = name.size();
  return GetUserNameW(name.data(), &size) != 0 ? Narrow(name.data()) : "";
}

// What _isatty() takes for a terminal may be any device, the null device too.
bool IsTerminal(std::FILE* stream) {
  DWORD mode = 0;
  return GetConsoleMode(HandleOf(stream), &mode) != 0;
}

void OnInterrupt(void (*handler)(int signal)) {
  g_on_interrupt = handler;
  // A parent may have switched Ctrl-C off for its children.
  SetConsoleCtrlHandler(nullptr, FALSE);
  if (SetConsoleCtrlHandler(OnControl, TRUE) == 0) throw std::runtime_error("no Ctrl-C");
}

struct Terminal::Modes {
  struct Stream {
    HANDLE handle = nullptr;
    DWORD mode = 0;
  };
  UINT output_page = 0;
  std::array<Stream, 2> streams;
};

Terminal::Terminal() : modes_(std::make_unique<Modes>()), can_redraw_(true) {
  modes_->output_page = GetConsoleOutputCP();
  SetConsoleOutputCP(CP_UTF8);
  std::size_t i = 0;
  for (std::FILE* stream : {stdout, stderr}) {
    _setmode(_fileno(stream), _O_BINARY);
    std::setvbuf(stream, nullptr, _IOFBF, kBuffer);
    Modes::Stream& known = modes_->streams.at(i++);
    known.handle = HandleOf(stream);
    can_redraw_ =
        can_redraw_ && GetConsoleMode(known.handle, &known.mode) != 0 &&
        SetConsoleMode(known.handle, known.mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
  }
}

Terminal::~Terminal() {
  std::fflush(stdout);
  std::fflush(stderr);
  for (const Modes::Stream& stream : modes_->streams) {
    if (stream.mode != 0) SetConsoleMode(stream.handle, stream.mode);
  }
  if (modes_->output_page != 0) SetConsoleOutputCP(modes_->output_page);
}

}  // namespace vkmaster
