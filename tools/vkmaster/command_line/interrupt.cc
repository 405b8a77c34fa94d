#include "tools/vkmaster/command_line/interrupt.h"

#include <atomic>

#include "master/alarm.h"
#include "tools/vkmaster/system/system.h"

namespace vkmaster {
namespace {

// A signal handler may use these atomics, which have no lock.
std::atomic<int> g_signal{0};
std::atomic<int> g_count{0};
static_assert(std::atomic<int>::is_always_lock_free);
master::Alarm* g_alarm = nullptr;

void OnSignal(int number) {
  g_signal = number;
  ++g_count;
  g_alarm->Raise();
}

}  // namespace

Interrupt::Interrupt() {
  static master::Alarm alarm;
  g_alarm = &alarm;
  OnInterrupt(OnSignal);
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
