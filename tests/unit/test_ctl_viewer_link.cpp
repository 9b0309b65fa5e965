// A viewer's link: until when it is used.
#include <gtest/gtest.h>

#include <chrono>
#include <limits>

#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {
namespace {

using std::chrono::seconds;

TEST(EndAfter, SoManySeconds) {
  const auto now = Clock::now();
  EXPECT_GE(end_after(60), now + seconds(60));
  EXPECT_LT(end_after(60), now + seconds(120));
  EXPECT_GE(end_after(1e-7), now);
  EXPECT_LT(end_after(1e-7), now + seconds(60));
}

TEST(EndAfter, NeverForZero) { EXPECT_EQ(end_after(0), Clock::time_point::max()); }

TEST(EndAfter, NeverForMoreThanTheClockCounts) {
  const auto now = Clock::now();
  const double left = std::chrono::duration<double>(Clock::time_point::max() - now).count();
  EXPECT_GT(end_after(left - 60), now);
  EXPECT_LT(end_after(left - 60), Clock::time_point::max());
  for (const double time :
       {left + 60, 9'999'999'999.0, 1e300, std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(end_after(time), Clock::time_point::max()) << time;
  }
}

}  // namespace
}  // namespace nimbus::ctl
