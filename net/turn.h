// Whose turn it is to broadcast.
//
// A broadcast takes a millisecond for each viewer, and several threads broadcast. They take turns:
// the frames of two broadcasts do not interleave, and the pause after each send holds for all. When
// video waits, its turn is the next; then it is the turn of who has waited longest among the
// others. So video waits for the one broadcast that is under way, and nobody is left out. The turn
// is advisory, and nothing depends on it: no sender waits for ever for one that is stuck.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace nimbus {

/// The longest that anybody waits for a turn.
inline constexpr std::chrono::milliseconds kTurnPatience{50};

enum class Rank : std::uint8_t { in_line, next };

/// A static object: waiters are linked to it, and it has no end.
class Turn {
 public:
  using Ticket = std::uint32_t;

  /// Waits until it is the caller's turn: behind all who wait already or, as the next, before those
  /// in line. After kTurnPatience the caller takes the turn from whoever has it. Any thread.
  [[nodiscard]] Ticket take(Rank rank) noexcept;

  /// Gives the turn to the next, unless it was taken away meanwhile. Any thread.
  void give_back(Ticket ticket) noexcept;

 private:
  struct Waiter {
    Rank rank;
    Waiter* behind = nullptr;
    bool is_called = false;
    std::condition_variable call{};
  };

  void wait(std::unique_lock<std::mutex>& lock, Waiter& self) noexcept;
  void enqueue(Waiter& waiter) noexcept;
  void dequeue(const Waiter& waiter) noexcept;

  std::mutex mutex_;         // held for some instructions, never while anything is waited for
  bool is_taken_ = false;    // also while it is on its way to a waiter that was called
  Ticket ticket_ = 0;        // of the last who took the turn
  Waiter* first_ = nullptr;  // in the order of their turns
};

}  // namespace nimbus
