// The commands of all browsers, one after the other.
//
// The service has one mailbox: a text that comes before the last one was taken replaces it. So
// commands leave it time, and those after which the service is busy wait for its answer. A person
// does not wait for long: a command that has not had its turn by then is dropped. The order to rest
// waits for nobody's answer.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/web/bytes.h"

namespace nimbus::web {

/// What the service answers.
enum class Reply : std::uint8_t { none, report, scan };

struct QueuedCommand {
  std::string text;
  std::chrono::milliseconds busy{0};  ///< how long carrying it out takes
  Reply awaits = Reply::none;         ///< the next waits for that answer
  bool follows = false;               ///< belongs to the one before it
  std::optional<bool> moves = {};     ///< the gimbal, on and on; false: ends that
  std::string from = {};              ///< who has ordered it; empty: nobody
  std::optional<Time> until = {};     ///< when it is too late for it
  /// What became of it, and in words for a person.
  std::function<void(bool sent, std::string_view text)> done = {};
};

class CommandQueue {
 public:
  static constexpr std::size_t kMost = 32;
  static constexpr std::chrono::milliseconds kPeriod{55};

  /// How long a person's command waits for its turn. The page gives up a second later.
  static constexpr std::chrono::seconds kPatience{3};

  /// How long the service's answer is waited for.
  static constexpr std::chrono::seconds kReportPatience{10};  // a save remounts the card
  static constexpr std::chrono::seconds kScanPatience{30};    // a scan listens on every channel

  using Send = std::function<bool(const std::string&)>;
  explicit CommandQueue(Send send) : send_(std::move(send)) {}

  [[nodiscard]] bool has_room(std::size_t count = 1) const {
    return waiting_.size() + count <= kMost;
  }

  /// Sends the command, at once if nothing is in its way. There must be room.
  void push(QueuedCommand command, Time now);

  /// Sends that order before all others, and again, because a text may get lost, until the service
  /// has been reached.
  void rest(std::string order, Time now);

  /// Drops those that wait and are such, and tells `why`.
  void drop(const std::function<bool(const QueuedCommand&)>& such, std::string_view why);

  /// An answer of the service has come.
  void replied(Reply reply, Time now);

  [[nodiscard]] std::optional<Time> deadline() const;
  void pass_time(Time now);

  [[nodiscard]] std::size_t depth() const { return waiting_.size(); }
  [[nodiscard]] std::uint64_t sent() const { return sent_; }

  /// Whether the order to rest has still to be said.
  [[nodiscard]] bool rests() const { return rests_left_ > 0; }

 private:
  [[nodiscard]] bool rest_is_next() const;
  void send_rest(Time now);
  void send_front(Time now);

  Send send_;
  std::deque<QueuedCommand> waiting_;
  Time taken_{};  // when the mailbox has been emptied, unless the service is busy
  Time free_{};   // when the next may go
  std::string rest_;
  int rests_left_ = 0;
  Reply awaited_ = Reply::none;
  std::string question_;  // what it answers
  std::uint64_t sent_ = 0;
};

}  // namespace nimbus::web
