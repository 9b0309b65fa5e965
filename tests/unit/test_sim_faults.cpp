#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/failure.h"
#include "tools/sim/faults.h"

namespace nimbus::sim {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Luck = std::vector<std::vector<Bytes>>;

Bytes frame_number(std::size_t number) {
  Bytes frame(17 + number % 90);
  for (std::size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<std::uint8_t>(i + number);
  return frame;
}

/// What arrives of so many frames.
Luck luck_of(const FaultRates& rates, std::uint64_t seed, std::size_t count = 2000) {
  Faults faults(rates, seed);
  Luck luck;
  for (std::size_t n = 0; n < count; ++n) luck.push_back(faults.strike(frame_number(n)));
  return luck;
}

int flipped_bits(const Bytes& a, const Bytes& b) {
  int count = 0;
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    count += std::popcount(static_cast<unsigned>(a[i] ^ b[i]));
  }
  return count;
}

TEST(Faults, NoneByDefault) {
  const Luck luck = luck_of({}, 1);
  for (std::size_t n = 0; n < luck.size(); ++n) {
    ASSERT_EQ(luck[n], std::vector<Bytes>{frame_number(n)});
  }
}

TEST(Faults, SameSeedSameFaults) {
  const FaultRates rates{.drop = 0.1, .corrupt = 0.2, .truncate = 0.1, .repeat = 0.1};
  EXPECT_EQ(luck_of(rates, 7), luck_of(rates, 7));
  EXPECT_NE(luck_of(rates, 7), luck_of(rates, 8));
}

TEST(Faults, OneFaultDoesNotMoveTheOthers) {
  const Luck some = luck_of({.corrupt = 0.2}, 3);
  const Luck more = luck_of({.drop = 0.3, .corrupt = 0.2}, 3);
  for (std::size_t n = 0; n < some.size(); ++n) {
    if (!more[n].empty()) {
      ASSERT_EQ(more[n], some[n]);
    }
  }
}

TEST(Faults, AlwaysDrop) {
  for (const auto& arrived : luck_of({.drop = 1}, 1)) EXPECT_TRUE(arrived.empty());
}

TEST(Faults, AlwaysCorruptFlipsOneBit) {
  const Luck luck = luck_of({.corrupt = 1}, 1);
  for (std::size_t n = 0; n < luck.size(); ++n) {
    ASSERT_EQ(luck[n].size(), 1U);
    ASSERT_EQ(luck[n][0].size(), frame_number(n).size());
    ASSERT_EQ(flipped_bits(luck[n][0], frame_number(n)), 1);
  }
}

TEST(Faults, AlwaysTruncateLeavesSomething) {
  const Luck luck = luck_of({.truncate = 1}, 1);
  for (std::size_t n = 0; n < luck.size(); ++n) {
    ASSERT_EQ(luck[n].size(), 1U);
    ASSERT_GE(luck[n][0].size(), 1U);
    ASSERT_LT(luck[n][0].size(), frame_number(n).size());
    ASSERT_EQ(flipped_bits(luck[n][0], frame_number(n)), 0);
  }
}

TEST(Faults, AlwaysRepeat) {
  const Luck luck = luck_of({.repeat = 1}, 1);
  for (std::size_t n = 0; n < luck.size(); ++n) {
    ASSERT_EQ(luck[n], std::vector<Bytes>(2, frame_number(n)));
  }
}

TEST(Faults, RatesAreKeptAndCounted) {
  constexpr int kFrames = 20'000;
  Faults faults({.drop = 0.1, .corrupt = 0.2, .truncate = 0.3, .repeat = 0.4}, 5);
  for (std::size_t n = 0; n < kFrames; ++n) {
    static_cast<void>(faults.strike(frame_number(n)));
  }
  const auto [dropped, corrupted, truncated, repeated] = faults.counts();
  constexpr double kArrive = kFrames * 0.9;
  EXPECT_NEAR(static_cast<double>(dropped), kFrames * 0.1, kFrames * 0.01);
  EXPECT_NEAR(static_cast<double>(corrupted), kArrive * 0.2, kFrames * 0.01);
  EXPECT_NEAR(static_cast<double>(truncated), kArrive * 0.3, kFrames * 0.01);
  EXPECT_NEAR(static_cast<double>(repeated), kArrive * 0.4, kFrames * 0.01);
}

// --- The list of rates -------------------------------------------------------------------------

TEST(FaultRates, AreRead) {
  const FaultRates rates = parse_fault_rates("repeat=1,drop=0.25,truncate=1e-3,corrupt=0");
  EXPECT_EQ(rates.drop, 0.25);
  EXPECT_EQ(rates.corrupt, 0);
  EXPECT_EQ(rates.truncate, 0.001);
  EXPECT_EQ(rates.repeat, 1);
  EXPECT_EQ(parse_fault_rates("drop=0.5").repeat, 0);
}

TEST(FaultRates, WrongOnesSayWhatIsExpected) {
  struct Row {
    const char* text;
    const char* part;
  };
  for (const auto& [text, part] :
       {Row{"", "expected drop=RATE"}, Row{"drop", "'drop' is no fault"},
        Row{"drop=0.1,", "'' is no fault"}, Row{"Drop=0.1", "'Drop=0.1' is no fault"},
        Row{"lose=0.1", "'lose=0.1' is no fault"}, Row{"drop=", "expected a number from 0 to 1"},
        Row{"drop=x", "expected a number from 0 to 1"},
        Row{"drop=nan", "expected a number from 0 to 1"},
        Row{"drop=0.1%", "expected a number from 0 to 1"},
        Row{"drop=-0.1", "expected a number from 0 to 1"},
        Row{"drop=1.01", "expected a number from 0 to 1"},
        Row{"drop=0.1,drop=0.1", "'drop' is given twice"}}) {
    try {
      static_cast<void>(parse_fault_rates(text));
      ADD_FAILURE() << text << " was taken";
    } catch (const tools::Failure& failure) {
      EXPECT_NE(std::string(failure.what()).find(part), std::string::npos) << failure.what();
    }
  }
}

}  // namespace
}  // namespace nimbus::sim
