#include "base/number.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

namespace nimbus {
namespace {

static_assert(to_integer<std::int16_t>(1e9) == 32'767, "usable in constant expressions");
static_assert(to_integer<std::uint8_t>(-0.5F) == 0);

/// One pair of types: to the first from the second.
template <typename Pair>
class ToInteger : public testing::Test {
 protected:
  using IntType = typename Pair::first_type;
  using FloatType = typename Pair::second_type;
  using IntLimits = std::numeric_limits<IntType>;
  using FloatLimits = std::numeric_limits<FloatType>;
  // Whether the integer's limits, and the halves beside them, are exact in the floating type.
  static constexpr bool kLimitsAreExact = FloatLimits::digits > IntLimits::digits + 1;

  /// The conversion at run time: the compiler has answers of its own to what is out of range.
  static IntType converted(FloatType value) {
    const volatile FloatType at_run_time = value;
    return to_integer<IntType>(FloatType{at_run_time});
  }
  /// One more than the largest integer: exact in every floating type.
  static FloatType past_max() { return std::ldexp(FloatType{1}, IntLimits::digits); }
};

template <typename Int>
using FromFloat = std::pair<Int, float>;
template <typename Int>
using FromDouble = std::pair<Int, double>;

using Pairs =
    testing::Types<FromFloat<std::int8_t>, FromFloat<std::uint8_t>, FromFloat<std::int16_t>,
                   FromFloat<std::uint16_t>, FromFloat<std::int32_t>, FromFloat<std::uint32_t>,
                   FromFloat<std::int64_t>, FromFloat<std::uint64_t>, FromDouble<std::int8_t>,
                   FromDouble<std::uint8_t>, FromDouble<std::int16_t>, FromDouble<std::uint16_t>,
                   FromDouble<std::int32_t>, FromDouble<std::uint32_t>, FromDouble<std::int64_t>,
                   FromDouble<std::uint64_t>>;
TYPED_TEST_SUITE(ToInteger, Pairs);

TYPED_TEST(ToInteger, NotANumberIsZero) {
  using Limits = typename TestFixture::FloatLimits;
  EXPECT_EQ(this->converted(Limits::quiet_NaN()), 0);
  EXPECT_EQ(this->converted(-Limits::quiet_NaN()), 0);
  EXPECT_EQ(this->converted(Limits::signaling_NaN()), 0);
}

TYPED_TEST(ToInteger, TruncatesTowardZero) {
  using Float = typename TypeParam::second_type;
  using Limits = typename TestFixture::FloatLimits;
  for (const Float zero :
       {Float{0}, -Float{0}, Limits::denorm_min(), -Limits::denorm_min(), Float{0.5}, Float{-0.5},
        std::nextafter(Float{1}, Float{0}), std::nextafter(Float{-1}, Float{0})}) {
    EXPECT_EQ(this->converted(zero), 0) << zero;
  }
  EXPECT_EQ(this->converted(Float{1}), 1);
  EXPECT_EQ(this->converted(Float{1.5}), 1);
  EXPECT_EQ(this->converted(std::nextafter(Float{2}, Float{0})), 1);
  EXPECT_EQ(this->converted(Float{100.75}), 100);
  if constexpr (std::is_signed_v<typename TypeParam::first_type>) {
    EXPECT_EQ(this->converted(Float{-1}), -1);
    EXPECT_EQ(this->converted(Float{-1.5}), -1);
    EXPECT_EQ(this->converted(std::nextafter(Float{-2}, Float{0})), -1);
    EXPECT_EQ(this->converted(Float{-100.75}), -100);
  }
}

TYPED_TEST(ToInteger, SaturatesAboveTheRange) {
  using Float = typename TypeParam::second_type;
  using Limits = typename TestFixture::FloatLimits;
  const Float past = this->past_max();
  for (const Float value : {past, std::nextafter(past, Limits::infinity()), 2 * past, Limits::max(),
                            Limits::infinity()}) {
    EXPECT_EQ(this->converted(value), TestFixture::IntLimits::max()) << value;
  }
}

TYPED_TEST(ToInteger, SaturatesBelowTheRange) {
  using Float = typename TypeParam::second_type;
  using Limits = typename TestFixture::FloatLimits;
  const auto min = static_cast<Float>(TestFixture::IntLimits::min());
  for (const Float value : {min, std::nextafter(min, -Limits::infinity()), min - 1,
                            -2 * this->past_max(), Limits::lowest(), -Limits::infinity()}) {
    EXPECT_EQ(this->converted(value), TestFixture::IntLimits::min()) << value;
  }
}

TYPED_TEST(ToInteger, IsExactBesideTheLimits) {
  using Float = typename TypeParam::second_type;
  using Int = typename TypeParam::first_type;
  constexpr Int kMax = TestFixture::IntLimits::max();
  constexpr Int kMin = TestFixture::IntLimits::min();
  // The last values before the limits that Float has.
  const Float last = std::nextafter(this->past_max(), Float{0});
  EXPECT_EQ(static_cast<Float>(this->converted(last)), std::trunc(last));
  if constexpr (std::is_signed_v<typename TypeParam::first_type>) {
    EXPECT_EQ(static_cast<Float>(this->converted(-last)), std::trunc(-last));
  }
  if constexpr (TestFixture::kLimitsAreExact) {
    const auto max = static_cast<Float>(kMax);
    const auto min = static_cast<Float>(kMin);
    EXPECT_EQ(this->converted(max - 1), kMax - 1);
    EXPECT_EQ(this->converted(max - Float{0.5}), kMax - 1);
    EXPECT_EQ(this->converted(max), kMax);
    EXPECT_EQ(this->converted(max + Float{0.5}), kMax);
    EXPECT_EQ(this->converted(max + 1), kMax);
    EXPECT_EQ(this->converted(min - 1), kMin);
    EXPECT_EQ(this->converted(min - Float{0.5}), kMin);
    EXPECT_EQ(this->converted(min), kMin);
    EXPECT_EQ(this->converted(min + Float{0.5}), std::is_signed_v<Int> ? kMin + 1 : 0);
    EXPECT_EQ(this->converted(min + 1), kMin + 1);
  }
}

TEST(ToIntegerExamples, OfTheSizesInUse) {
  EXPECT_EQ(to_integer<std::int32_t>(2147483646.9), 2147483646);
  EXPECT_EQ(to_integer<std::int32_t>(2147483647.0), 2147483647);
  EXPECT_EQ(to_integer<std::int32_t>(2147483648.0), 2147483647);
  EXPECT_EQ(to_integer<std::int32_t>(-2147483647.9), -2147483647);
  EXPECT_EQ(to_integer<std::int32_t>(-2147483648.9), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(to_integer<std::int32_t>(2147483520.0F), 2147483520);
  EXPECT_EQ(to_integer<std::int32_t>(2147483647.0F), 2147483647);  // 2^31 as a float
  EXPECT_EQ(to_integer<std::uint32_t>(4294967295.5), 4294967295U);
  EXPECT_EQ(to_integer<std::uint32_t>(4294967296.0), 4294967295U);
  EXPECT_EQ(to_integer<std::uint16_t>(65535.9), 65535);
  EXPECT_EQ(to_integer<std::int16_t>(-1234.5), -1234);
  EXPECT_EQ(to_integer<std::uint8_t>(255.5F), 255);
  EXPECT_EQ(to_integer<std::int64_t>(9223372036854774784.0), 9223372036854774784);
  EXPECT_EQ(to_integer<std::uint64_t>(18446744073709549568.0), 18446744073709549568U);
}

constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();

void expect_parsed(std::initializer_list<std::pair<const char*, std::int32_t>> rows) {
  for (const auto& [text, number] : rows) EXPECT_EQ(parse_i32(text), number) << text;
}

TEST(ParseI32, TakesTheDecimalNumberAtTheStart) {
  expect_parsed({
      {"0", 0},
      {"1", 1},
      {"-1", -1},
      {"+7", 7},
      {"-0", 0},
      {"007", 7},
      {"000000000000000000000000000000000042", 42},
  });
}

TEST(ParseI32, NothingThatIsANumberIsZero) {
  expect_parsed({
      {"", 0},
      {" ", 0},
      {"yes", 0},
      {"-", 0},
      {"+", 0},
      {"+-1", 0},
      {"--1", 0},
      {"- 1", 0},
      {".5", 0},
      {"\"5\"", 0},
      {"\xC3\xA9", 0},
  });
}

TEST(ParseI32, TakesTheLeadingDigits) {
  expect_parsed({
      {"12abc", 12},
      {"-12abc", -12},
      {"1.9", 1},
      {"1e3", 1},
      {"0x10", 0},
      {"1,000", 1},
      {"3 4", 3},
      {"5-6", 5},
  });
}

TEST(ParseI32, SkipsWhiteSpaceBefore) {
  expect_parsed({
      {"  12", 12},
      {"\t\n\v\f\r -3", -3},
      {"12  ", 12},
  });
}

TEST(ParseI32, KeepsWithin32Bits) {
  expect_parsed({
      {"2147483646", kMax - 1},
      {"2147483647", kMax},
      {"2147483648", kMax},
      {"2147483649", kMax},
      {"-2147483647", kMin + 1},
      {"-2147483648", kMin},
      {"-2147483649", kMin},
      {"4294967295", kMax},
      {"4294967296", kMax},
      {"4294967297", kMax},
      {"-4294967296", kMin},
  });
}

TEST(ParseI32, KeepsWithin32BitsBeyond64) {
  expect_parsed({
      {"9223372036854775807", kMax},
      {"9223372036854775808", kMax},
      {"18446744073709551616", kMax},
      {"-9223372036854775808", kMin},
      {"-9223372036854775809", kMin},
  });
}

TEST(ParseI32, KeepsWithin32BitsBeyondAny) {
  const std::string digits(500, '9');
  EXPECT_EQ(parse_i32(digits.c_str()), kMax);
  EXPECT_EQ(parse_i32((digits + 'x').c_str()), kMax);
  EXPECT_EQ(parse_i32(('-' + digits).c_str()), kMin);
}

}  // namespace
}  // namespace nimbus
