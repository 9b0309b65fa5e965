#include "net/turn.h"

namespace nimbus {

Turn::Ticket Turn::take(Rank rank) noexcept {
  std::unique_lock lock(mutex_);
  if (is_taken_) {
    Waiter self{.rank = rank};
    wait(lock, self);
  }
  is_taken_ = true;
  return ++ticket_;
}

void Turn::give_back(Ticket ticket) noexcept {
  const std::lock_guard lock(mutex_);
  if (ticket != ticket_) return;
  Waiter* const next = first_;
  is_taken_ = next != nullptr;
  if (next == nullptr) return;
  dequeue(*next);
  next->is_called = true;
  // While it cannot go on, and end with its stack.
  next->call.notify_one();
}

void Turn::wait(std::unique_lock<std::mutex>& lock, Waiter& self) noexcept {
  enqueue(self);
  const auto deadline = std::chrono::steady_clock::now() + kTurnPatience;
  if (!self.call.wait_until(lock, deadline, [&self] { return self.is_called; })) dequeue(self);
}

void Turn::enqueue(Waiter& waiter) noexcept {
  Waiter** place = &first_;
  while (*place != nullptr && (*place)->rank >= waiter.rank) place = &(*place)->behind;
  waiter.behind = *place;
  *place = &waiter;
}

void Turn::dequeue(const Waiter& waiter) noexcept {
  Waiter** place = &first_;
  while (*place != &waiter) place = &(*place)->behind;
  *place = waiter.behind;
}

}  // namespace nimbus
