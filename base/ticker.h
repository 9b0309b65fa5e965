// A period that does not drift.
#pragma once

#include <time.h>

#include <cstdint>

#include "base/clock.h"

namespace nimbus {

/// Wakes its thread once a period, counted from one tick to the next, whatever the work in between
/// takes. A tick that comes late by more than a period (a suspended board) is not made up for: the
/// count starts again from there. One thread.
class Ticker {
 public:
  explicit Ticker(std::int64_t period_ns) noexcept : period_ns_(period_ns), next_ns_(now_ns()) {}

  /// Sleeps until the next tick.
  void wait() noexcept {
    next_ns_ += period_ns_;
    if (now_ns() - next_ns_ > period_ns_) next_ns_ = now_ns();
    const timespec until{.tv_sec = static_cast<time_t>(next_ns_ / kNsPerSecond),
                         .tv_nsec = static_cast<long>(next_ns_ % kNsPerSecond)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
  }

 private:
  static std::int64_t now_ns() noexcept { return clock_ns(CLOCK_MONOTONIC); }

  std::int64_t period_ns_;
  std::int64_t next_ns_;
};

}  // namespace nimbus
