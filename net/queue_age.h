// How long a datagram has waited in its socket's queue.
//
// The kernel stamps it on arrival, by the wall clock, which may be set at any moment: right after
// the start, as a rule, when the board finds a time server. A clock that is set must neither make
// fresh datagrams look old nor keep looking at them so.
#pragma once

#include <cstdint>
#include <limits>

namespace nimbus {

/// Both clocks, in nanoseconds.
struct Clocks {
  std::int64_t wall;
  std::int64_t monotonic;
};

/// Reads the monotonic clock, and then the wall clock. Any thread.
[[nodiscard]] Clocks read_clocks() noexcept;

/// The queue of one socket. One thread.
class QueueAge {
 public:
  /// For how many nanoseconds the datagram with that stamp has waited, the queue's datagrams being
  /// asked for one after the other. When the wall clock was set meanwhile, this may be too little
  /// by what the shortest wait so far was, or by a step back that is shorter than the wait; too
  /// much for one datagram, or for those between two steps of the clock to and fro.
  [[nodiscard]] std::int64_t waited(std::int64_t stamp, Clocks now) noexcept;

 private:
  // The least distance so far from a stamp to the monotonic clock: that of one that did not wait.
  std::int64_t least_ = std::numeric_limits<std::int64_t>::max();
};

}  // namespace nimbus
