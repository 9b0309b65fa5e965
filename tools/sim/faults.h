// Damage on the way from the camera: what a bad link does to frames, the same at every run.
#pragma once

#include <cstdint>
#include <random>
#include <string_view>
#include <vector>

namespace nimbus::sim {

/// How often each fault strikes a frame: 0.0 never, 1.0 always. Each is thrown for itself.
struct FaultRates {
  double drop = 0;      ///< the frame does not arrive
  double corrupt = 0;   ///< one bit of it is flipped
  double truncate = 0;  ///< its end is missing
  double repeat = 0;    ///< it arrives twice
};

/// Reads "drop=0.01,corrupt=0.02": any of the four names, each at most once. Throws Failure.
[[nodiscard]] FaultRates parse_fault_rates(std::string_view text);

/// Strikes frames. The n-th frame of a seed always has the same luck.
class Faults {
 public:
  struct Counts {
    std::uint64_t dropped = 0;
    std::uint64_t corrupted = 0;
    std::uint64_t truncated = 0;
    std::uint64_t repeated = 0;
  };

  Faults(const FaultRates& rates, std::uint64_t seed) : rates_(rates), random_(seed) {}

  /// What arrives of a frame: nothing, one datagram, or two. None is empty.
  [[nodiscard]] std::vector<std::vector<std::uint8_t>> strike(std::vector<std::uint8_t> frame);

  [[nodiscard]] const Counts& counts() const { return counts_; }

 private:
  double next();
  std::size_t below(std::size_t limit);

  FaultRates rates_;
  std::mt19937_64 random_;
  Counts counts_;
};

}  // namespace nimbus::sim
