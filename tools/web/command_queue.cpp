#include "tools/web/command_queue.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace nimbus::web {
namespace {

constexpr int kRests = 3;

/// How long an answer is waited for.
std::chrono::milliseconds patience(Reply reply) {
  switch (reply) {
    case Reply::report:
      return CommandQueue::kReportPatience;
    case Reply::scan:
      return CommandQueue::kScanPatience;
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

void CommandQueue::rest(std::string order, Time now) {
  rest_ = std::move(order);
  rests_left_ = kRests;
  pass_time(now);
}

void CommandQueue::drop(const std::function<bool(const QueuedCommand&)>& such,
                        std::string_view why) {
  std::vector<QueuedCommand> dropped;
  bool drops = false;
  for (auto one = waiting_.begin(); one != waiting_.end();) {
    drops = one->follows ? drops : such(*one);
    if (!drops) {
      ++one;
      continue;
    }
    dropped.push_back(std::move(*one));
    one = waiting_.erase(one);
  }
  for (const QueuedCommand& one : dropped) {
    if (one.done) one.done(false, why);
  }
}

void CommandQueue::replied(Reply reply, Time now) {
  if (reply == Reply::none || reply != awaited_) return;
  awaited_ = Reply::none;
  free_ = std::min(free_, now + kPeriod);
  pass_time(now);
}

/// What follows belongs to a command that has gone, and with which the service may be busy.
bool CommandQueue::rest_is_next() const {
  return rests_left_ > 0 && (waiting_.empty() || !waiting_.front().follows);
}

std::optional<Time> CommandQueue::deadline() const {
  if (waiting_.empty() && !rest_is_next()) return std::nullopt;
  Time first = rest_is_next() ? taken_ : free_;
  for (const QueuedCommand& one : waiting_) first = std::min(first, one.until.value_or(first));
  return first;
}

void CommandQueue::pass_time(Time now) {
  drop([now](const QueuedCommand& one) { return one.until && now >= *one.until; },
       "the service was busy for too long, so this was not done; try again");
  if (rest_is_next()) return send_rest(now);
  if (!waiting_.empty() && now >= free_) send_front(now);
}

void CommandQueue::send_rest(Time now) {
  if (now < taken_) return;
  if (send_(rest_)) --rests_left_;
  taken_ = now + kPeriod;
  free_ = std::max(free_, taken_);
  if (rests_left_ > 0 || awaited_ != Reply::report) return;
  // It has taken the question's place, if the service was busy: it is put again.
  waiting_.push_front({.text = question_, .awaits = awaited_});
  free_ = taken_;
}

void CommandQueue::send_front(Time now) {
  const QueuedCommand command = std::move(waiting_.front());
  waiting_.pop_front();
  const bool sent = send_(command.text);
  if (sent) ++sent_;
  awaited_ = command.awaits;
  question_ = command.text;
  taken_ = now + kPeriod + command.busy;
  free_ = taken_ + patience(command.awaits);
  if (command.done) command.done(sent, sent ? "sent" : "the service does not answer");
}

}  // namespace nimbus::web
