#include "base/clock.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>

#include "base/shared.h"
#include "tests/unit/support.h"
#include "tests/unit/wall_clock.h"

namespace nimbus {
namespace {

TEST(Clock, CountsMillisecondsOfTheWallClockModulo32Bits) {
  struct Row {
    timespec time;
    std::uint32_t milliseconds;
  };
  constexpr Row kRows[] = {
      {{0, 0}, 0},
      {{0, 999'999}, 0},
      {{0, 1'000'000}, 1},
      {{0, 999'999'999}, 999},
      {{1, 0}, 1000},
      {{4'294'967, 295'999'999}, 4'294'967'295},
      {{4'294'967, 296'000'000}, 0},
      {{4'294'967, 999'999'999}, 703},
      {{4'294'968, 0}, 704},
      {{1'700'000'000, 123'456'789}, 3'487'918'203},
      // Past 2038, and past the 32 bits of an unsigned count of seconds.
      {{2'147'483'648, 0}, 0},
      {{4'294'967'295, 999'000'000}, 4'294'967'295},
      {{4'294'967'296, 1'000'000}, 1},
  };
  test::WallClock clock;
  for (const auto& row : kRows) {
    clock.set(row.time);
    EXPECT_EQ(now_ms(), row.milliseconds) << row.time.tv_sec << " s " << row.time.tv_nsec << " ns";
  }
}

TEST(Clock, TruncatesToWholeMilliseconds) {
  test::WallClock clock;
  for (std::uint32_t ms = 0; ms < 1000; ++ms) {
    clock.set({0, static_cast<long>(ms) * 1'000'000});
    ASSERT_EQ(now_ms(), ms);
    clock.set({0, static_cast<long>(ms) * 1'000'000 + 999'999});
    ASSERT_EQ(now_ms(), ms);
  }
}

TEST(Clock, IsTheRealTimeClock) {
  const auto real_time_ms = [] {
    timespec now{};
    test::system_clock(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
  };
  const std::int64_t before = real_time_ms();
  const std::uint32_t now = now_ms();
  const std::int64_t after = real_time_ms();
  EXPECT_LE(now - static_cast<std::uint32_t>(before), static_cast<std::uint32_t>(after - before));
}

TEST(Age, IsTheUnsignedDifference) {
  struct Row {
    std::uint32_t stamp, now, age;
  };
  constexpr Row kRows[] = {
      {1000, 1000, 0},
      {1000, 6001, 5001},
      {0, 4'294'967'295, 4'294'967'295},
      {4'294'967'295, 0, 1},
      {4'294'966'296, 704, 1704},
      // A wall clock that was set back makes everything old at once.
      {1000, 999, 4'294'967'295},
  };
  test::WallClock clock;
  for (const auto& row : kRows) {
    const Shared<std::uint32_t> stamp(row.stamp);
    clock.set_ms(row.now);
    EXPECT_EQ(age_ms(stamp), row.age) << row.now << " - " << row.stamp;
  }
}

/// A datagram may arrive, and set the stamp, at the very moment of the check.
TEST(Age, OfAStampSetWhileTheClockIsReadIsNotNegative) {
  static Shared<std::uint32_t> stamp;
  stamp = 9'900;
  test::WallClock clock;
  clock.set([] {
    stamp = 10'001;
    return timespec{10, 0};
  });
  EXPECT_EQ(age_ms(stamp), 100U);
}

TEST(Age, OfAStampThatAnotherThreadKeepsSettingIsSmall) {
  Shared<std::uint32_t> stamp(now_ms());
  const test::Background writer([&] { stamp = now_ms(); });
  test::hammer([&] { ASSERT_LT(age_ms(stamp), 60'000U); });
}

}  // namespace
}  // namespace nimbus
