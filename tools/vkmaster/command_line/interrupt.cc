#include "tools/vkmaster/command_line/interrupt.h"

#include <signal.h>

#include "master/alarm.h"

namespace vkmaster {
namespace {

volatile sig_atomic_t g_signal = 0;
volatile sig_atomic_t g_count = 0;
master::Alarm* g_alarm = nullptr;

void OnSignal(int number) {
  g_signal = number;
  g_count = g_count + 1;
  g_alarm->Raise();
}

}  // namespace

Interrupt::Interrupt() {
  static master::Alarm alarm;
  g_alarm = &alarm;
  struct sigaction action {};
  action.sa_handler = OnSignal;
  // Without SA_RESTART: a read at the prompt has to return.
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
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
