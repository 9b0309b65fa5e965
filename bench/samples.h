// A figure that was measured many times.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace nimbus::bench {

/// Each accessor needs at least one sample.
class Samples {
 public:
  void add(double value) { values_.push_back(value); }

  [[nodiscard]] double median() const { return quantile(0.5); }
  [[nodiscard]] double largest() const { return quantile(1); }

  /// Half the distance between the quartiles.
  [[nodiscard]] double spread() const { return (quantile(0.75) - quantile(0.25)) / 2; }

  /// Between the two nearest samples, in proportion.
  [[nodiscard]] double quantile(double share) const {
    std::vector<double> sorted = values_;
    std::sort(sorted.begin(), sorted.end());
    const double place = share * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const auto above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (place - static_cast<double>(below)) * (sorted[above] - sorted[below]);
  }

 private:
  std::vector<double> values_;
};

}  // namespace nimbus::bench
