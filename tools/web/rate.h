// How much comes in a second.
#pragma once

#include <array>
#include <cstdint>
#include <numeric>

#include "tools/web/bytes.h"

namespace nimbus::web {

/// Sums what is added over the last whole seconds.
template <std::size_t seconds>
class Rate {
 public:
  void add(std::uint64_t amount, Time now) {
    advance(now);
    slot(second_) += amount;
  }

  /// The sum over the whole seconds before this one.
  [[nodiscard]] std::uint64_t sum(Time now) {
    advance(now);
    return std::accumulate(slots_.begin(), slots_.end(), std::uint64_t{0}) - slot(second_);
  }
  [[nodiscard]] double per_second(Time now) {
    return static_cast<double>(sum(now)) / static_cast<double>(seconds);
  }

 private:
  static constexpr std::size_t kSlots = seconds + 1;

  std::uint64_t& slot(std::uint64_t second) {
    return slots_[static_cast<std::size_t>(second % kSlots)];
  }

  void advance(Time now) {
    const std::uint64_t second = millis_of(now) / 1000;
    if (second - second_ > kSlots) {
      slots_.fill(0);
    } else {
      for (std::uint64_t at = second_ + 1; at <= second; ++at) slot(at) = 0;
    }
    second_ = second;
  }

  std::array<std::uint64_t, kSlots> slots_{};
  std::uint64_t second_ = 0;
};

}  // namespace nimbus::web
