#include "net/queue_age.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace nimbus {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kHour = 3600 * kSecond;

/// A machine whose wall clock is set now and then, and a queue of it.
class Queue {
 public:
  /// The wall clock's reading when a datagram arrives now.
  [[nodiscard]] std::int64_t stamp() const { return now_.wall; }

  std::int64_t waited(std::int64_t stamp) { return age_.waited(stamp, now_); }

  void pass(std::int64_t time) {
    now_.wall += time;
    now_.monotonic += time;
  }

  void set_clock(std::int64_t step) { now_.wall += step; }

 private:
  Clocks now_{.wall = 1'800'000'000 * kSecond, .monotonic = 100 * kSecond};
  QueueAge age_;
};

/// A queue that has seen a datagram which did not wait.
class Ages : public testing::Test {
 protected:
  Ages() { EXPECT_EQ(queue_.waited(queue_.stamp()), 0); }

  Queue queue_;
};

/// The same, with a step that its clock is set by.
class AgesAcrossAStep : public Ages, public testing::WithParamInterface<std::int64_t> {};

TEST_F(Ages, AreTimesInTheQueue) {
  for (const std::int64_t wait : {std::int64_t{0}, kSecond, 5 * kSecond, kHour, std::int64_t{1}}) {
    const std::int64_t stamp = queue_.stamp();
    queue_.pass(wait);
    EXPECT_EQ(queue_.waited(stamp), wait);
    EXPECT_EQ(queue_.waited(queue_.stamp()), 0);
    queue_.pass(kHour);
  }
}

TEST_P(AgesAcrossAStep, AreRightWhenTheClockIsSetBetweenDatagrams) {
  queue_.pass(kHour);
  queue_.set_clock(GetParam());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(queue_.waited(queue_.stamp()), 0);
    const std::int64_t stamp = queue_.stamp();
    queue_.pass(3 * kSecond);
    EXPECT_EQ(queue_.waited(stamp), 3 * kSecond);
  }
}

/// Nothing that is fresh is taken for old, and, but for a step that is shorter than the wait, the
/// other way round.
TEST_P(AgesAcrossAStep, AreRightWhenTheClockIsSetWhileDatagramsWait) {
  const std::int64_t old_one = queue_.stamp();
  queue_.pass(3 * kSecond);
  const std::int64_t fresh_one = queue_.stamp();
  queue_.set_clock(GetParam());
  const std::int64_t waited = queue_.waited(old_one);
  if (GetParam() > 0 || GetParam() < -3 * kSecond) {
    EXPECT_EQ(waited, 3 * kSecond);
  } else {
    EXPECT_EQ(waited, 3 * kSecond + GetParam());
  }
  EXPECT_EQ(queue_.waited(fresh_one), 0);
  EXPECT_EQ(queue_.waited(queue_.stamp()), 0);
}

TEST_P(AgesAcrossAStep, AreRightWhenTheClockHasBeenSetBackBefore) {
  queue_.set_clock(-kHour);
  EXPECT_EQ(queue_.waited(queue_.stamp()), 0);
  const std::int64_t stamp = queue_.stamp();
  queue_.pass(1);
  queue_.set_clock(GetParam());
  EXPECT_EQ(queue_.waited(stamp), 1);
}

INSTANTIATE_TEST_SUITE_P(Steps, AgesAcrossAStep,
                         testing::Values(kHour, -kHour, 10 * kHour, kSecond, -kSecond,
                                         3 * kSecond / 2, -3 * kSecond / 2, 500'000'000 * kSecond,
                                         -500'000'000 * kSecond));

/// One step after the other, each shorter than what counts as old, does not add up.
TEST_F(Ages, DoNotGrowWithSmallStepsBack) {
  for (int i = 0; i < 100; ++i) {
    queue_.set_clock(-kSecond);
    queue_.pass(kSecond / 10);
    EXPECT_EQ(queue_.waited(queue_.stamp()), 0);
  }
}

}  // namespace
}  // namespace nimbus
