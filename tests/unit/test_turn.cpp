#include "net/turn.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Longer than a thread takes until it waits for its turn, on a machine that is not too busy.
constexpr milliseconds kArrival{5};

/// Threads that take a turn, one after the other, each when the one before it is certain to wait.
class Queue {
 public:
  explicit Queue(Turn& turn) : turn_(turn) {}

  void add(char name, Rank rank) {
    threads_.emplace_back([this, name, rank] {
      const Turn::Ticket ticket = turn_.take(rank);
      order_ += name;  // theirs alone while they have the turn
      turn_.give_back(ticket);
    });
    std::this_thread::sleep_for(kArrival);
  }

  /// The names in the order of their turns.
  std::string order() {
    threads_.clear();
    return order_;
  }

 private:
  Turn& turn_;
  std::string order_;
  std::vector<std::jthread> threads_;
};

TEST(Turn, NobodyWaitsForAFreeOne) {
  Turn turn;
  const auto begin = steady_clock::now();
  for (int i = 0; i < 1000; ++i) turn.give_back(turn.take(i % 2 == 0 ? Rank::next : Rank::in_line));
  EXPECT_LT(steady_clock::now() - begin, kTurnPatience);
}

TEST(Turn, GoesToWhoIsNextAndThenDownTheLine) {
  // A busy machine may keep a thread from arriving in time, or the line from moving in time.
  std::string order;
  EXPECT_TRUE(test::mostly([&order] {
    Turn turn;
    Queue queue(turn);
    const Turn::Ticket ticket = turn.take(Rank::in_line);
    queue.add('a', Rank::in_line);
    queue.add('b', Rank::in_line);
    queue.add('v', Rank::next);
    queue.add('c', Rank::in_line);
    turn.give_back(ticket);
    order = queue.order();
    return order == "vabc";
  })) << order;
}

/// Video without a pause leaves every second turn to the others, and waits for no more than one.
TEST(Turn, AlternatesWhenVideoNeverPauses) {
  Turn turn;
  std::atomic<bool> stop = false;
  std::latch all_there(3);
  std::string order;
  const auto busy = [&](char name, Rank rank) {
    return [&, name, rank] {
      all_there.arrive_and_wait();
      while (!stop) {
        const Turn::Ticket ticket = turn.take(rank);
        order += name;
        if (order.size() >= 100) stop = true;
        std::this_thread::sleep_for(milliseconds(1));
        turn.give_back(ticket);
      }
    };
  };
  {
    const std::jthread video(busy('v', Rank::next));
    const std::jthread status(busy('s', Rank::in_line));
    const std::jthread reports(busy('r', Rank::in_line));
  }
  const auto share = [&order](char name) { return std::count(order.begin(), order.end(), name); };
  EXPECT_GE(share('v'), 30) << order;
  EXPECT_GE(share('s'), 10) << order;
  EXPECT_GE(share('r'), 10) << order;
}

/// How long the next one waits for a turn that is never given back.
steady_clock::duration wait_for_a_stuck_one(Turn& turn) {
  const auto begin = steady_clock::now();
  turn.give_back(turn.take(Rank::in_line));
  return steady_clock::now() - begin;
}

TEST(Turn, IsTakenAwayAfterFiftyMilliseconds) {
  steady_clock::duration shortest = std::chrono::hours(1);
  for (int i = 0; i < 5; ++i) {
    Turn turn;
    static_cast<void>(turn.take(Rank::in_line));
    const auto waited = wait_for_a_stuck_one(turn);
    EXPECT_GE(waited, milliseconds(50));
    shortest = std::min(shortest, waited);
  }
  EXPECT_LT(shortest, milliseconds(65)) << "the shortest: a busy machine wakes threads late";
}

TEST(Turn, WhoWasStuckGivesNothingBack) {
  Turn turn;
  const Turn::Ticket stuck = turn.take(Rank::next);
  const Turn::Ticket late = turn.take(Rank::next);
  turn.give_back(stuck);
  EXPECT_GE(wait_for_a_stuck_one(turn), milliseconds(50)) << "the other one still has it";
  turn.give_back(late);
  EXPECT_LT(wait_for_a_stuck_one(turn), milliseconds(50)) << "it was given back by the third";
}

TEST(Turn, WakesWhoWaitsAtOnce) {
  steady_clock::duration shortest = std::chrono::hours(1);
  for (int i = 0; i < 20; ++i) {
    Turn turn;
    const Turn::Ticket ticket = turn.take(Rank::in_line);
    steady_clock::time_point woken;
    std::jthread waiter([&] {
      turn.give_back(turn.take(Rank::next));
      woken = steady_clock::now();
    });
    std::this_thread::sleep_for(kArrival);
    const auto given_back = steady_clock::now();
    turn.give_back(ticket);
    waiter.join();
    shortest = std::min(shortest, woken - given_back);
  }
  EXPECT_LT(shortest, std::chrono::microseconds(400));
}

}  // namespace
}  // namespace nimbus
