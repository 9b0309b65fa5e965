#include "tools/ctl/gap_counter.h"

namespace nimbus::ctl {

void GapCounter::take(std::uint32_t number) {
  // Whoever is further behind than this has not been overtaken: the service has started again.
  constexpr std::uint32_t kReordered = 16;
  if (!last_) {
    last_ = number;
    return;
  }
  const std::uint32_t ahead = number - *last_ - 1;
  const std::uint32_t behind = *last_ - number;
  if (behind <= kReordered) {
    // A restart of the count early on looks like a late frame, but for its first number.
    if (number == 0 && behind > 0) {
      ++restarts_;
      last_ = number;
      return;
    }
    ++late_;
    return;
  }
  if (ahead >= UINT32_MAX / 2) {
    ++restarts_;
  } else if (ahead > 0) {
    ++gaps_;
    missing_ += ahead;
  }
  last_ = number;
}

}  // namespace nimbus::ctl
