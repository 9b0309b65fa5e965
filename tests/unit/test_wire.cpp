#include "base/wire.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace nimbus {
namespace {

constexpr std::array<std::uint8_t, 10> kBytes{0x01, 0x82, 0x03, 0x84, 0x05,
                                              0x86, 0x07, 0x88, 0x09, 0x8A};

// Frames are built and taken apart at compile time too.
static_assert(load_le<std::uint8_t>(kBytes, 1) == 0x82);
static_assert(load_le<std::int8_t>(kBytes, 1) == -126);
static_assert(load_le<std::uint16_t>(kBytes, 0) == 0x8201);
static_assert(load_le<std::int16_t>(kBytes, 0) == -32'255);
static_assert(load_le<std::uint16_t>(kBytes, 1) == 0x0382);
static_assert(load_le<std::int16_t>(kBytes, 1) == 898);
static_assert(load_le<std::uint32_t>(kBytes, 0) == 0x8403'8201);
static_assert(load_le<std::int32_t>(kBytes, 0) == -2'080'144'895);
static_assert(load_le<std::uint32_t>(kBytes, 3) == 0x0786'0584);
static_assert(load_le<std::int32_t>(kBytes, 3) == 126'223'748);
static_assert(load_le<std::uint64_t>(kBytes, 0) == 0x8807'8605'8403'8201);
static_assert(load_le<std::uint64_t>(kBytes, 2) == 0x8A09'8807'8605'8403);
static_assert(load_le<std::int64_t>(kBytes, 1) == 0x0988'0786'0584'0382);
static_assert(load_le<std::int64_t>(kBytes, 2) < 0);
static_assert(load_le<std::uint32_t, 3>(kBytes, 1) == 0x8403'82);
static_assert(load_le<float>(std::array<std::uint8_t, 5>{0, 0x00, 0x00, 0x20, 0xC0}, 1) == -2.5F);

// By a layout: a number, one of 24 bits, a bit and a row of bytes; what is beside them stays.
constexpr WireField<std::int16_t> kNumber{1, "number"};
constexpr WireField<std::uint32_t, 3> kThreeBytes{4, "three_bytes"};
constexpr WireBit kBit{8, 7, "bit"};
constexpr WireBytes<2> kRow{8, "row"};
static_assert(ByteView(kBytes)[kNumber] == 898);
static_assert(ByteView(kBytes)[kThreeBytes] == 0x0786'05);
static_assert(ByteView(kBytes)[kBit] == 0 && ByteView(kBytes)[WireBit{9, 7, "other"}] == 1);
static_assert(ByteView(kBytes)[kRow][1] == 0x8A);

consteval std::array<std::uint8_t, 10> written() {
  auto bytes = kBytes;
  put(bytes, kNumber, -2);
  put(bytes, kThreeBytes, 0xFF'11'22'33U);
  put(bytes, kBit, true);
  put(bytes, WireBit{9, 1, "cleared"}, false);
  bytes_of(bytes, WireBytes<1>{0, "first"})[0] = 0x77;
  return bytes;
}
static_assert(written() == std::array<std::uint8_t, 10>{0x77, 0xFE, 0xFF, 0x84, 0x33,  //
                                                        0x22, 0x11, 0x88, 0x89, 0x88});

constexpr WireItem kItem = kThreeBytes;
static_assert(kItem.size == 3 && kItem.end() == 7 && kItem.kind == WireItem::Kind::natural);
static_assert(WireItem(WireWords<4>{3, "words"}).end() == 11);

template <typename T>
constexpr std::array<std::uint8_t, 10> stored(std::size_t offset, T value) {
  std::array<std::uint8_t, 10> bytes{};
  store_le(bytes, offset, value);
  return bytes;
}

static_assert(stored<std::uint8_t>(0, 0x42) == std::array<std::uint8_t, 10>{0x42});
static_assert(stored<std::int16_t>(1, -2) == std::array<std::uint8_t, 10>{0, 0xFE, 0xFF});
static_assert(stored<std::uint32_t>(2, 0x12345678) ==
              std::array<std::uint8_t, 10>{0, 0, 0x78, 0x56, 0x34, 0x12});
static_assert(stored<std::int64_t>(2, -0x0102'0304'0506'0708) ==
              std::array<std::uint8_t, 10>{0, 0, 0xF8, 0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE});

template <typename T>
class Wire : public testing::Test {};

using Types = testing::Types<std::uint8_t, std::int8_t, std::uint16_t, std::int16_t, std::uint32_t,
                             std::int32_t, std::uint64_t, std::int64_t>;
TYPED_TEST_SUITE(Wire, Types);

/// The limits, and every single bit set or missing.
template <typename T>
std::vector<T> values() {
  std::vector<T> all{0, 1, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()};
  for (std::size_t bit = 0; bit < 8 * sizeof(T); ++bit) {
    const auto one = static_cast<T>(std::uint64_t{1} << bit);
    all.push_back(one);
    all.push_back(static_cast<T>(~one));
  }
  return all;
}

TYPED_TEST(Wire, StoresLowByteFirstAtAnyOffsetAndNothingElse) {
  for (const TypeParam value : values<TypeParam>()) {
    for (std::size_t offset = 0; offset + sizeof(TypeParam) <= 16; ++offset) {
      std::array<std::uint8_t, 16> bytes;
      bytes.fill(0xA5);
      auto expected = bytes;
      auto rest = static_cast<std::uint64_t>(value);
      for (std::size_t i = 0; i < sizeof(TypeParam); ++i, rest /= 256) {
        expected[offset + i] = static_cast<std::uint8_t>(rest % 256);
      }
      store_le(bytes, offset, value);
      ASSERT_EQ(bytes, expected) << "offset " << offset;
      ASSERT_EQ(load_le<TypeParam>(bytes, offset), value) << "offset " << offset;
    }
  }
}

TYPED_TEST(Wire, ReachesTheLastByteOfABuffer) {
  std::vector<std::uint8_t> bytes(sizeof(TypeParam));
  store_le<TypeParam>(bytes, 0, std::numeric_limits<TypeParam>::max());
  EXPECT_EQ(load_le<TypeParam>(bytes, 0), std::numeric_limits<TypeParam>::max());
}

TYPED_TEST(Wire, TheRestOfTheBufferHasNoInfluence) {
  std::array<std::uint8_t, 16> bytes;
  bytes.fill(0xFF);
  store_le<TypeParam>(bytes, 3, 0x12);
  EXPECT_EQ(load_le<TypeParam>(bytes, 3), 0x12);
}

}  // namespace
}  // namespace nimbus
