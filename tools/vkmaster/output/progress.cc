#include "tools/vkmaster/output/progress.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "tools/vkmaster/output/output.h"

namespace vkmaster {
namespace {

constexpr int kBarWidth = 30;

std::string Elapsed(std::chrono::seconds elapsed) {
  const auto seconds = elapsed.count();
  return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

}  // namespace

void Progress::Begin(std::string what) {
  what_ = std::move(what);
  advance_ = false;
  active_ = true;
  begin_ = std::chrono::steady_clock::now();
}

void Progress::BeginAdvance(double from, double to) {
  Begin("");
  advance_ = true;
  from_ = reached_ = from;
  to_ = to;
}

void Progress::Reached(double days) {
  reached_ = days;
  Tick();
}

void Progress::Tick() {
  if (!enabled_ || !active_) return;
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin_);
  Tell(terminal_, "\r\033[K" + Line(elapsed));
  shown_ = true;
}

void Progress::Hide() {
  if (!shown_) return;
  Tell(terminal_, "\r\033[K");
  shown_ = false;
}

void Progress::End() {
  Hide();
  active_ = false;
}

std::string Progress::Line(std::chrono::seconds elapsed) const {
  if (!advance_) return fmt::format("{} ({})", what_, Elapsed(elapsed));
  const double length = to_ - from_;
  const double part = length > 0 ? std::clamp((reached_ - from_) / length, 0.0, 1.0) : 1.0;
  const int full = static_cast<int>(part * kBarWidth);
  return fmt::format("[{:#<{}}{:.<{}}] day {:.6g} of {:.6g} ({})", "", full, "", kBarWidth - full,
                     reached_, to_, Elapsed(elapsed));
}

}  // namespace vkmaster
