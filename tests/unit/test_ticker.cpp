#include "base/ticker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

using Clock = std::chrono::steady_clock;
using std::this_thread::sleep_for;

constexpr std::chrono::milliseconds kPeriod(20);
constexpr std::int64_t kPeriodNs = std::chrono::nanoseconds(kPeriod).count();

/// A ticker that was not started before it says.
class StampedTicker {
 public:
  /// Waits for the next tick. Returns how long ago the start was then.
  Clock::duration wait() {
    ticker_.wait();
    return Clock::now() - start_;
  }

 private:
  const Clock::time_point start_ = Clock::now();
  Ticker ticker_{kPeriodNs};
};

TEST(Ticker, NoTickComesEarly) {
  StampedTicker ticker;
  for (int tick = 1; tick <= 20; ++tick) {
    ASSERT_GE(ticker.wait(), tick * kPeriod) << "tick " << tick;
  }
}

TEST(Ticker, WorkDoesNotLengthenThePeriod) {
  constexpr int kTicks = 10;
  EXPECT_TRUE(test::mostly([] {
    StampedTicker ticker;
    for (int tick = 1; tick < kTicks; ++tick) {
      ticker.wait();
      sleep_for(kPeriod / 2);
    }
    return ticker.wait() < (kTicks + 1) * kPeriod;
  }));
}

TEST(Ticker, AShortDelayDoesNotMoveTheTicksBehindIt) {
  EXPECT_TRUE(test::mostly([] {
    StampedTicker ticker;
    ticker.wait();
    sleep_for(kPeriod * 3 / 2);
    const auto late = ticker.wait();
    const auto next = ticker.wait();
    return late >= kPeriod * 5 / 2 && next >= kPeriod * 3 && next < kPeriod * 7 / 2;
  }));
}

/// After a stop of the whole board, the gimbal must not get the missed frames in one burst.
TEST(Ticker, ALongDelayIsNotMadeUpFor) {
  EXPECT_TRUE(test::mostly([] {
    StampedTicker ticker;
    ticker.wait();
    sleep_for(kPeriod * 10);
    const auto late = ticker.wait();
    auto last = late;
    for (int tick = 1; tick <= 5; ++tick) {
      last = ticker.wait();
      EXPECT_GE(last, kPeriod * (11 + tick)) << "tick " << tick << " is one of a burst";
    }
    return late < kPeriod * 23 / 2 && last < kPeriod * 33 / 2;
  }));
}

}  // namespace
}  // namespace nimbus
