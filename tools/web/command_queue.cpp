#include "tools/web/command_queue.h"

#include <algorithm>
#include <utility>

namespace nimbus::web {
namespace {

/// How long an answer is waited for.
std::chrono::milliseconds patience(Reply reply) {
  using std::chrono::seconds;
  switch (reply) {
    case Reply::report:
      return seconds(10);  // a save remounts the card
    case Reply::scan:
      return seconds(30);  // a scan listens on every channel
    case Reply::none:
      break;
  }
  return {};
}

}  // namespace

void CommandQueue::push(QueuedCommand command, Time now) {
  waiting_.push_back(std::move(command));
  pass_time(now);
}

void CommandQueue::replied(Reply reply, Time now) {
  if (reply == Reply::none || reply != awaited_) return;
  awaited_ = Reply::none;
  free_ = std::min(free_, now + kPeriod);
  pass_time(now);
}

std::optional<Time> CommandQueue::deadline() const {
  if (waiting_.empty()) return std::nullopt;
  return free_;
}

void CommandQueue::pass_time(Time now) {
  if (waiting_.empty() || now < free_) return;
  const QueuedCommand command = std::move(waiting_.front());
  waiting_.pop_front();
  const bool sent = send_(command.text);
  if (sent) ++sent_;
  awaited_ = command.awaits;
  free_ = now + kPeriod + command.busy + patience(command.awaits);
  if (command.done) command.done(sent);
}

}  // namespace nimbus::web
