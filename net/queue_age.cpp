#include "net/queue_age.h"

#include <time.h>

#include <algorithm>

#include "base/clock.h"

namespace nimbus {

Clocks read_clocks() noexcept {
  const std::int64_t monotonic = clock_ns(CLOCK_MONOTONIC);
  return {.wall = clock_ns(CLOCK_REALTIME), .monotonic = monotonic};
}

std::int64_t QueueAge::waited(std::int64_t stamp, Clocks now) noexcept {
  // A wall clock that is set forward lessens the distance of what it stamps from then on.
  const std::int64_t distance = now.monotonic - stamp;
  least_ = std::min(least_, distance);
  const std::int64_t by_monotonic = distance - least_;
  const std::int64_t by_wall = now.wall - stamp;
  // The clock was not set back before the stamp; it was since, if by_wall is less than nothing.
  if (by_wall < 0 || by_wall >= by_monotonic) return by_monotonic;
  least_ = distance - by_wall;
  return by_wall;
}

}  // namespace nimbus
