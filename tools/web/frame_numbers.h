// What is missing between the frames of the service, by their numbers.
#pragma once

#include <cstdint>
#include <optional>

namespace nimbus::web {

/// The service numbers all that it sends. Two of its threads that send at one moment may use one
/// number twice and leave out the next: that is no loss.
class FrameNumbers {
 public:
  /// Takes a frame's number. Tells how many before it are missing.
  std::uint32_t take(std::uint32_t number) {
    if (!last_) {
      last_ = number;
      return 0;
    }
    const std::uint32_t step = number - *last_;
    if (step == 0) {
      ++twice_;
      since_ = 0;
      return 0;
    }
    constexpr std::uint32_t kFarBack = 1000;
    if (step > UINT32_MAX - kFarBack) return 0;  // late
    last_ = number;
    if (step > UINT32_MAX / 2) return restarted();
    const std::uint32_t excused = step - 1 < twice_ ? step - 1 : twice_;
    twice_ -= excused;
    // Others may have got in between, but no more than the threads that send.
    if (++since_ > kBetween) twice_ = 0;
    return step - 1 - excused;
  }

  /// Forgets the last number: the service has gone.
  void forget() { last_.reset(); }

 private:
  static constexpr std::uint32_t kBetween = 4;

  /// A service that counts anew: something may have been lost.
  std::uint32_t restarted() {
    twice_ = 0;
    return 1;
  }

  std::optional<std::uint32_t> last_;
  std::uint32_t twice_ = 0;  // numbers that came twice, and none was left out for yet
  std::uint32_t since_ = 0;  // frames since the last of them
};

}  // namespace nimbus::web
