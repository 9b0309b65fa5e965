#include "base/text_builder.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>

namespace nimbus {
namespace {

TEST(TextBuilder, IsEmptyAtFirst) {
  std::array<char, 4> buffer{'#', '#', '#', '#'};
  const TextBuilder text(buffer);
  EXPECT_EQ(text.view(), "");
  EXPECT_STREQ(text.c_str(), "");
  EXPECT_EQ(text.room(), 3U);
}

TEST(TextBuilder, AddsTextsAndNumbers) {
  std::array<char, 64> buffer;
  TextBuilder text(buffer);
  text.add("a").add("").add(std::string_view("b\0c", 3)).add(std::int32_t{0}).add(std::int32_t{-7});
  EXPECT_EQ(text.view(), std::string_view("ab\0c0-7", 7));
  EXPECT_EQ(text.room(), 63U - 7U);
  EXPECT_EQ(buffer[7], '\0');
}

TEST(TextBuilder, AddsTheLimitsOfANumber) {
  using Limits = std::numeric_limits<std::int32_t>;
  std::array<char, 32> buffer;
  EXPECT_EQ(TextBuilder(buffer).add(Limits::min()).add(" ").add(Limits::max()).view(),
            "-2147483648 2147483647");
}

TEST(TextBuilder, DropsWhatDoesNotFit) {
  const std::string_view letters = "abcdefghij";
  for (std::size_t size = 1; size <= letters.size() + 2; ++size) {
    SCOPED_TRACE(size);
    std::array<char, 16> memory;
    memory.fill('#');
    TextBuilder text(std::span<char>(memory).first(size));
    text.add(letters.substr(0, 3)).add(letters.substr(3));
    const std::string kept(letters.substr(0, size - 1));
    EXPECT_EQ(text.view(), kept);
    EXPECT_EQ(text.room(), size - 1 - kept.size());
    EXPECT_STREQ(text.c_str(), kept.c_str());
    EXPECT_EQ(std::string(memory.begin() + static_cast<std::ptrdiff_t>(size), memory.end()),
              std::string(memory.size() - size, '#'));
  }
}

TEST(TextBuilder, CutsANumberToo) {
  std::array<char, 4> buffer;
  TextBuilder text(buffer);
  EXPECT_EQ(text.add(std::int32_t{-12345}).view(), "-12");
  EXPECT_EQ(text.add(std::int32_t{6}).view(), "-12");
  EXPECT_EQ(text.room(), 0U);
}

}  // namespace
}  // namespace nimbus
