// Clocks that show what a test wants. They take the place of the C library's function, so a program
// includes them in one file.
#pragma once

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace nimbus::test {

/// What the system's own clock shows. Where a time_t is longer than a word, only the newer of two
/// calls fills it.
inline int system_clock(clockid_t id, timespec* time) noexcept {
#ifdef SYS_clock_gettime64
  return static_cast<int>(syscall(SYS_clock_gettime64, id, time));
#else
  return static_cast<int>(syscall(SYS_clock_gettime, id, time));
#endif
}

inline constexpr std::int64_t kNsPerSecond = 1'000'000'000;

inline timespec timespec_of(std::int64_t nanoseconds) noexcept {
  return {static_cast<time_t>(nanoseconds / kNsPerSecond),
          static_cast<long>(nanoseconds % kNsPerSecond)};
}

/// The answer to whoever reads the wall clock; null: the real time.
inline std::atomic<timespec (*)()> wall_clock_answer = nullptr;

/// Where the monotonic clock stands, in nanoseconds; 0: it goes.
inline std::atomic<std::int64_t> monotonic_stands_at = 0;

/// Owns the wall clock: once it was set, it stands still for the rest of the lifetime. Other
/// threads may read it at any moment.
class WallClock {
 public:
  WallClock() = default;
  WallClock(const WallClock&) = delete;
  WallClock& operator=(const WallClock&) = delete;
  ~WallClock() { set(nullptr); }

  void set(timespec time) {
    nanoseconds_ = std::int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec;
    set([] { return timespec_of(nanoseconds_); });
  }

  /// The time at which now_ms() is that number.
  void set_ms(std::uint32_t milliseconds) {
    set({static_cast<time_t>(milliseconds / 1000),
         static_cast<long>(milliseconds % 1000) * 1'000'000});
  }

  /// Asks `answer` at every reading.
  void set(timespec (*answer)()) { wall_clock_answer = answer; }

 private:
  static inline std::atomic<std::int64_t> nanoseconds_ = 0;
};

}  // namespace nimbus::test

extern "C" int clock_gettime(clockid_t id, timespec* time) noexcept {
  const auto answer = id == CLOCK_REALTIME ? nimbus::test::wall_clock_answer.load() : nullptr;
  if (answer != nullptr) {
    *time = answer();
    return 0;
  }
  const std::int64_t shown = nimbus::test::monotonic_stands_at;
  if (id != CLOCK_MONOTONIC || shown == 0) return nimbus::test::system_clock(id, time);
  *time = nimbus::test::timespec_of(shown);
  return 0;
}
