// Bytes and moments, as every room of the web console has them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace nimbus::web {

using Bytes = std::span<const std::uint8_t>;
using Buffer = std::vector<std::uint8_t>;

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

inline void append(Buffer& to, Bytes bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

/// A moment on the server's clock, as browsers see it.
[[nodiscard]] inline std::uint64_t micros_of(Time time) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}
[[nodiscard]] inline std::uint64_t millis_of(Time time) { return micros_of(time) / 1000; }

}  // namespace nimbus::web
