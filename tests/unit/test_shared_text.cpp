#include "base/shared_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

constexpr std::size_t kSize = 12;
using Text = SharedText<kSize>;

static_assert(sizeof(Text) == kSize && alignof(Text) == 1 && Text::kCapacity == kSize);
static_assert(std::is_trivially_default_constructible_v<Text>);
static_assert(std::is_trivially_destructible_v<Text>);

constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz";
const std::string kOldBytes(kSize, '#');

/// The ways to rewrite a text must not differ.
struct Assign {
  const char* name;
  void (*assign)(Text&, std::string_view);
  void (*clear)(Text&);
};

class SharedTextAssign : public testing::TestWithParam<Assign> {};

INSTANTIATE_TEST_SUITE_P(
    , SharedTextAssign,
    testing::Values(Assign{"direct", [](Text& text, std::string_view value) { text.assign(value); },
                           [](Text& text) { text.clear(); }},
                    Assign{"by_reference",
                           [](Text& text, std::string_view value) { text.ref().assign(value); },
                           [](Text& text) { text.ref().clear(); }}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(SharedTextAssign, CutsToTheFieldAndLeavesTheBytesBehindTheNul) {
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{5}, kSize - 2,
                                   kSize - 1, kSize, kSize + 1, kLetters.size()}) {
    SCOPED_TRACE(length);
    Text text;
    test::set_bytes(text, kOldBytes);
    GetParam().assign(text, kLetters.substr(0, length));
    const std::string kept(kLetters.substr(0, std::min(length, kSize - 1)));
    const std::string stored = kept + '\0';
    EXPECT_EQ(test::bytes_of(text), stored + kOldBytes.substr(stored.size()));
    EXPECT_EQ(text.copy().view(), kept);
    EXPECT_STREQ(text.copy().c_str(), kept.c_str());
    EXPECT_EQ(text.empty(), length == 0);
    EXPECT_EQ(text.ref().empty(), length == 0);
  }
}

TEST_P(SharedTextAssign, EndsAtAnEmbeddedNul) {
  using namespace std::string_view_literals;
  Text text;
  test::set_bytes(text, kOldBytes);
  GetParam().assign(text, "abc\0defghijklmnop"sv);
  EXPECT_EQ(test::bytes_of(text), "abc\0########"sv);
  GetParam().assign(text, "\0x"sv);
  EXPECT_EQ(test::bytes_of(text), "\0bc\0########"sv);
  EXPECT_TRUE(text.empty());
}

TEST_P(SharedTextAssign, ReplacesALongerText) {
  Text text;
  GetParam().assign(text, "a long text");
  GetParam().assign(text, "short");
  EXPECT_EQ(text.copy().view(), "short");
}

TEST_P(SharedTextAssign, ClearEmptiesByTheFirstByte) {
  using namespace std::string_view_literals;
  Text text;
  test::set_bytes(text, kOldBytes);
  GetParam().clear(text);
  EXPECT_EQ(test::bytes_of(text), "\0###########"sv);
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(text.copy().view(), "");
}

TEST(SharedText, CopyIsBoundedInAFieldWithoutNul) {
  Text text;
  test::set_bytes(text, kOldBytes);
  EXPECT_EQ(text.copy().view(), kOldBytes.substr(0, kSize - 1));
  EXPECT_FALSE(text.empty());
}

TEST(SharedText, ACopyIsItsOwn) {
  Text text{};
  text.assign("before");
  const auto copy = text.copy();
  text.assign("after");
  EXPECT_EQ(copy.view(), "before");
}

TEST(SharedText, HoldsEveryByteValue) {
  for (int byte = 1; byte < 256; ++byte) {
    const std::string value(3, static_cast<char>(byte));
    Text text{};
    text.assign(value);
    EXPECT_EQ(text.copy().view(), value);
  }
}

/// A reader may see a mix of two texts, but no character that neither has, and a text of the
/// field's size at most.
TEST(SharedText, AReaderSeesCharactersOfTheTextsOnly) {
  SharedText<64> text{};
  const std::string shorter(10, 'a');
  const std::string longer(100, 'b');
  const test::Background writer([&] {
    text.assign(shorter);
    text.assign(longer);
  });
  test::hammer([&] {
    const auto copy = text.copy();
    ASSERT_LE(copy.view().size(), 63U);
    ASSERT_EQ(copy.view().find_first_not_of("ab"), std::string_view::npos);
  });
}

/// A sibling process that reads the field as a C string must find its end within the field, at
/// every moment of a rewriting.
TEST(SharedText, TheFieldIsNeverWithoutANul) {
  constexpr std::size_t kLong = 512;
  SharedText<kLong> text{};
  auto& chars = reinterpret_cast<std::array<Shared<char>, kLong>&>(text);
  const std::string longest(kLong, 'b');
  // Odd while the field is prepared; a look that began or ended in there does not count.
  std::atomic<unsigned> round = 0;
  const test::Background writer([&] {
    ++round;
    chars[1] = '\0';
    for (std::size_t i = 2; i < kLong; ++i) chars[i] = '#';
    ++round;
    text.assign(longest);
  });
  std::size_t looks = 0;
  test::hammer([&] {
    const unsigned before = round.load();
    if (before % 2 != 0) return;
    bool ends = false;
    for (std::size_t i = 0; i < kLong && !ends; ++i) ends = chars[i] == '\0';
    // Not a load: those of the look must not be made after it.
    if (round.fetch_add(0) != before) return;
    ++looks;
    ASSERT_TRUE(ends);
  });
  EXPECT_GT(looks, 0U);
}

}  // namespace
}  // namespace nimbus
