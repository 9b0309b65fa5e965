// What is missing between the frames of the service, for people.
#pragma once

#include <cstdint>
#include <optional>

namespace nimbus::ctl {

/// Finds in the numbers of frames, as they arrive, what did not. The service counts its frames from
/// 0; frames that are sent at one moment may share a number, or come out of order.
class GapCounter {
 public:
  void take(std::uint32_t number);

  [[nodiscard]] std::uint64_t gaps() const { return gaps_; }        ///< places where numbers lack
  [[nodiscard]] std::uint64_t missing() const { return missing_; }  ///< numbers that lack there
  [[nodiscard]] std::uint64_t late() const { return late_; }  ///< numbers that came again, or late
  [[nodiscard]] std::uint64_t restarts() const { return restarts_; }  ///< of the count

 private:
  std::optional<std::uint32_t> last_;
  std::uint64_t gaps_ = 0;
  std::uint64_t missing_ = 0;
  std::uint64_t late_ = 0;
  std::uint64_t restarts_ = 0;
};

}  // namespace nimbus::ctl
