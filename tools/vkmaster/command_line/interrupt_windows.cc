#include <windows.h>

#include <atomic>
#include <csignal>
#include <stdexcept>

#include "master/alarm.h"
#include "tools/vkmaster/command_line/interrupt.h"

namespace vkmaster {
namespace {

constexpr int kHangUp = 1;  // SIGHUP, which Windows does not have

std::atomic<int> g_signal{0};
std::atomic<int> g_count{0};
master::Alarm* g_alarm = nullptr;

// On a thread that Windows makes for each of these.
BOOL WINAPI OnControl(DWORD type) {
  const bool typed = type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT;
  g_signal = type == CTRL_C_EVENT ? SIGINT : type == CTRL_BREAK_EVENT ? SIGTERM : kHangUp;
  ++g_count;
  g_alarm->Raise();
  // Windows ends the process when this returns, or a few seconds later: time for the shutdown.
  if (!typed) Sleep(INFINITE);
  return TRUE;
}

}  // namespace

Interrupt::Interrupt() {
  static master::Alarm alarm;
  g_alarm = &alarm;
  // A parent may have switched Ctrl-C off for its children.
  SetConsoleCtrlHandler(nullptr, FALSE);
  if (SetConsoleCtrlHandler(OnControl, TRUE) == 0) throw std::runtime_error("no Ctrl-C");
}

master::Wake Interrupt::wake() const {
  return g_alarm->wake();
}

int Interrupt::signal() const {
  return g_signal;
}

int Interrupt::count() const {
  return g_count;
}

void Interrupt::Clear() {
  g_alarm->Lower();
  g_signal = 0;
  g_count = 0;
}

}  // namespace vkmaster
