// The clocks: the one of milliseconds that every time-out is measured with, and the system's.
#pragma once

#include <time.h>

#include <cstdint>

#include "base/shared.h"

namespace nimbus {

/// Milliseconds of the wall clock (CLOCK_REALTIME), wrapping at 2^32. Differences are taken by
/// unsigned subtraction, so the wrap is harmless; a step of the wall clock is not, by design.
/// Any thread.
[[nodiscard]] inline std::uint32_t now_ms() noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::uint32_t>(now.tv_sec) * 1000U +
         static_cast<std::uint32_t>(now.tv_nsec / 1'000'000);
}

/// Milliseconds since `stamp` was set. The stamp is read before the clock: the other way round, a
/// stamp that another thread sets in between would lie in the future, and the unsigned difference
/// would be an age of seven weeks. Any thread.
[[nodiscard]] inline std::uint32_t age_ms(const Shared<std::uint32_t>& stamp) noexcept {
  const std::uint32_t then = stamp.load_acquire();
  return now_ms() - then;
}

inline constexpr std::int64_t kNsPerSecond = 1'000'000'000;

[[nodiscard]] constexpr std::int64_t nanoseconds_of(const timespec& time) noexcept {
  return std::int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec;
}

/// Nanoseconds of one of the system's clocks (clock_gettime(2)). Any thread.
[[nodiscard]] inline std::int64_t clock_ns(clockid_t clock) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return nanoseconds_of(now);
}

}  // namespace nimbus
