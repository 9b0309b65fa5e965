#include "base/shared.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

/// The type of a Shared<T>'s bits.
template <typename T>
using Bits = std::conditional_t<
    sizeof(T) == 8, std::uint64_t,
    std::conditional_t<sizeof(T) == 4, std::uint32_t,
                       std::conditional_t<sizeof(T) == 2, std::uint16_t, std::uint8_t>>>;

template <typename T>
Bits<T> bits(T value) {
  return std::bit_cast<Bits<T>>(value);
}

template <typename S>
class SharedValue : public testing::Test {};

using Types =
    testing::Types<Shared<char>, Shared<std::int8_t>, Shared<std::uint8_t>, Shared<std::int16_t>,
                   Shared<std::uint16_t>, Shared<std::int32_t>, Shared<std::uint32_t>,
                   Shared<float>, Shared<double>, Shared<std::uint64_t>, Shared<double, false>,
                   Shared<std::uint64_t, false>>;
TYPED_TEST_SUITE(SharedValue, Types);

template <typename S>
struct ValueOf;
template <typename T, bool one_access>
struct ValueOf<Shared<T, one_access>> {
  using Type = T;
};

/// Bit patterns with each byte of its own, all zero and all one.
template <typename T>
std::array<T, 4> patterns() {
  constexpr std::uint64_t kDistinct = 0x8877'6655'4433'2211;
  return {std::bit_cast<T>(Bits<T>{0}), std::bit_cast<T>(static_cast<Bits<T>>(~Bits<T>{0})),
          std::bit_cast<T>(static_cast<Bits<T>>(kDistinct)),
          std::bit_cast<T>(static_cast<Bits<T>>(~kDistinct))};
}

TYPED_TEST(SharedValue, HasTheLayoutOfItsValue) {
  using T = typename ValueOf<TypeParam>::Type;
  static_assert(sizeof(TypeParam) == sizeof(T));
  static_assert(alignof(TypeParam) == sizeof(T), "an aligned word on every processor");
  static_assert(std::is_standard_layout_v<TypeParam>);
  static_assert(std::is_trivially_default_constructible_v<TypeParam>);
  static_assert(std::is_trivially_destructible_v<TypeParam>);
  static_assert(!std::is_copy_constructible_v<TypeParam>);
  for (const T value : patterns<T>()) {
    TypeParam shared;
    shared = value;
    Bits<T> memory;
    std::memcpy(&memory, static_cast<const void*>(&shared), sizeof(memory));
    EXPECT_EQ(memory, bits(value));
  }
}

TYPED_TEST(SharedValue, HoldsWhatWasStored) {
  using T = typename ValueOf<TypeParam>::Type;
  for (const T value : patterns<T>()) {
    const TypeParam initialised(value);
    EXPECT_EQ(bits<T>(initialised), bits(value));
    TypeParam assigned;
    assigned = value;
    EXPECT_EQ(bits<T>(assigned), bits(value));
  }
}

TYPED_TEST(SharedValue, ZeroedStorageHoldsZero) {
  using T = typename ValueOf<TypeParam>::Type;
  static TypeParam in_static_storage;
  const TypeParam value_initialised{};
  EXPECT_EQ(bits<T>(in_static_storage), 0U);
  EXPECT_EQ(bits<T>(value_initialised), 0U);
}

TYPED_TEST(SharedValue, AssignmentCopiesTheValueOnce) {
  using T = typename ValueOf<TypeParam>::Type;
  const auto values = patterns<T>();
  TypeParam source(values[2]);
  TypeParam target(values[1]);
  target = source;
  EXPECT_EQ(bits<T>(target), bits(values[2]));
  source = values[3];
  EXPECT_EQ(bits<T>(target), bits(values[2]));
  const TypeParam& same = target;
  target = same;
  EXPECT_EQ(bits<T>(target), bits(values[2]));
}

/// Every whole access of the value yields all of one store: a byte of another one would show.
TYPED_TEST(SharedValue, IsNeverTornWithinAnAccess) {
  using T = typename ValueOf<TypeParam>::Type;
  using Word =
      std::conditional_t<std::is_same_v<TypeParam, Shared<T, false>>, std::uint32_t, Bits<T>>;
  constexpr Word kOnes = static_cast<Word>(~Word{0});
  const auto values = patterns<T>();
  TypeParam shared(values[0]);
  bool one = false;
  const test::Background writer([&] {
    one = !one;
    shared = values[one ? 1 : 0];
  });
  test::hammer(
      [&] {
        const T value = shared;
        for (const Word word : std::bit_cast<std::array<Word, sizeof(T) / sizeof(Word)>>(value)) {
          ASSERT_TRUE(word == 0 || word == kOnes) << word;
        }
      },
      std::chrono::milliseconds(50));
}

TEST(Shared, DoublesOfEitherFormKeepEveryBit) {
  using Limits = std::numeric_limits<double>;
  std::vector<double> values{0.0,
                             -0.0,
                             1.0,
                             -1.5,
                             Limits::min(),
                             Limits::denorm_min(),
                             Limits::max(),
                             Limits::lowest(),
                             Limits::infinity(),
                             -Limits::infinity(),
                             Limits::quiet_NaN(),
                             -Limits::quiet_NaN(),
                             Limits::signaling_NaN(),
                             std::bit_cast<double>(0x7FF8'1234'5678'9ABCU),
                             std::bit_cast<double>(0xFFF0'0000'0000'0001U)};
  for (int bit = 0; bit < 64; ++bit) values.push_back(std::bit_cast<double>(1ULL << bit));
  for (const double value : values) {
    Shared<double, true> whole;
    Shared<double, false> halves;
    whole = value;
    halves = value;
    EXPECT_EQ(bits<double>(whole), bits(value)) << value;
    EXPECT_EQ(bits<double>(halves), bits(value)) << value;
    const Shared<double, false> initialised(value);
    EXPECT_EQ(bits<double>(initialised), bits(value)) << value;
  }
}

void nothing() {}

TEST(Shared, HoldsACallback) {
  Shared<void (*)()> callback(nullptr);
  EXPECT_EQ(callback.load_acquire(), nullptr);
  callback.store_release(nothing);
  EXPECT_EQ(callback.load_acquire(), &nothing);
}

TEST(Shared, ReplacesTheExpectedValueOnly) {
  Shared<std::uint32_t> value(7);
  EXPECT_FALSE(value.replace(8, 9));
  EXPECT_EQ(value, 7U);
  EXPECT_TRUE(value.replace(7, 9));
  EXPECT_EQ(value, 9U);
  EXPECT_FALSE(value.replace(7, 10));
  EXPECT_EQ(value, 9U);
}

TEST(Shared, ThreadsThatReplaceAValueNeverLoseAStep) {
  Shared<std::uint32_t> value(0);
  const auto step = [&value] {
    const std::uint32_t seen = value;
    return value.replace(seen, seen + 1);
  };
  std::atomic<std::uint32_t> others_steps = 0;
  std::uint32_t own_steps = 0;
  {
    const test::Background other([&] {
      if (step()) ++others_steps;
    });
    test::hammer([&] {
      if (step()) ++own_steps;
    });
  }
  EXPECT_EQ(value, own_steps + others_steps);
}

/// store_release() publishes what was written before it to whoever sees the value by
/// load_acquire(). Plain memory, so that the thread sanitizer judges it too.
TEST(Shared, ReleasePublishesWhatWasWrittenBefore) {
  std::uint32_t payload = 0;
  Shared<std::uint32_t> published(0);
  Shared<std::uint32_t> taken(0);
  const test::Background writer([&] {
    const std::uint32_t round = published;
    if (taken.load_acquire() != round) return;
    payload = round + 1;
    published.store_release(round + 1);
  });
  std::uint32_t seen = 0;
  test::hammer([&] {
    const std::uint32_t round = published.load_acquire();
    if (round == seen) return;
    ASSERT_EQ(payload, round);
    seen = round;
    taken.store_release(round);
  });
  EXPECT_GT(seen, 0U);
}

}  // namespace
}  // namespace nimbus
