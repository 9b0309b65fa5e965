// The commands of all browsers, one after the other.
//
// The service has one mailbox: a text that comes before the last one was taken replaces it. So
// commands leave it time, and those after which the service is busy wait for its answer.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "tools/web/bytes.h"

namespace nimbus::web {

/// What the service answers.
enum class Reply : std::uint8_t { none, report, scan };

struct QueuedCommand {
  std::string text;
  std::chrono::milliseconds busy{0};  ///< how long carrying it out takes
  Reply awaits = Reply::none;         ///< the next waits for that answer
  std::function<void(bool sent)> done = {};
};

class CommandQueue {
 public:
  static constexpr std::size_t kMost = 32;
  static constexpr std::chrono::milliseconds kPeriod{55};

  using Send = std::function<bool(const std::string&)>;
  explicit CommandQueue(Send send) : send_(std::move(send)) {}

  [[nodiscard]] bool has_room(std::size_t count = 1) const {
    return waiting_.size() + count <= kMost;
  }

  /// Sends the command, at once if nothing is in its way. There must be room.
  void push(QueuedCommand command, Time now);

  /// An answer of the service has come.
  void replied(Reply reply, Time now);

  [[nodiscard]] std::optional<Time> deadline() const;
  void pass_time(Time now);

  [[nodiscard]] std::size_t depth() const { return waiting_.size(); }
  [[nodiscard]] std::uint64_t sent() const { return sent_; }

 private:
  Send send_;
  std::deque<QueuedCommand> waiting_;
  Time free_{};  // when the next may go
  Reply awaited_ = Reply::none;
  std::uint64_t sent_ = 0;
};

}  // namespace nimbus::web
