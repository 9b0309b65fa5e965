#include "display/command_mailbox.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

constexpr std::size_t kSize = 512;

/// The 512 bytes that hold `text` and nothing else.
std::string field_with(std::string text) {
  text.resize(kSize, '\0');
  return text;
}

const std::string kEmptyField = field_with("");

/// A text without repetitions near each other, so that a shift or a gap in it shows.
std::string long_text(std::size_t length) {
  std::string text;
  for (std::size_t i = 0; text.size() < length; ++i) text += std::to_string(i) + '{';
  text.resize(length);
  return text;
}

TEST(CommandMailbox, IsEmptyWhenZeroed) {
  CommandMailbox mailbox{};
  EXPECT_FALSE(mailbox.full());
  EXPECT_EQ(mailbox.take().view(), "");
  EXPECT_EQ(test::bytes_of(mailbox), kEmptyField);
}

TEST(CommandMailbox, HandsATextOverOnce) {
  CommandMailbox mailbox{};
  const std::string text = R"({"cmd":"record","param":"start"})";
  mailbox.post(text);
  EXPECT_TRUE(mailbox.full());
  EXPECT_EQ(test::bytes_of(mailbox), field_with(text));
  EXPECT_EQ(mailbox.take().view(), text);
  EXPECT_FALSE(mailbox.full());
  EXPECT_EQ(mailbox.take().view(), "");
}

TEST(CommandMailbox, HoldsUpTo511Characters) {
  for (const std::size_t length : {1U, 2U, 510U, 511U, 512U, 600U, 60'000U}) {
    SCOPED_TRACE(length);
    CommandMailbox mailbox{};
    const std::string text = long_text(length);
    const std::string kept = text.substr(0, 511);
    mailbox.post(text);
    EXPECT_EQ(test::bytes_of(mailbox), field_with(kept));
    EXPECT_EQ(mailbox.take().view(), kept);
    EXPECT_EQ(test::bytes_of(mailbox), kEmptyField) << "emptied by taking";
  }
}

TEST(CommandMailbox, ASecondTextReplacesAllOfTheFirst) {
  CommandMailbox mailbox{};
  mailbox.post(long_text(511));
  mailbox.post("{}");
  EXPECT_EQ(test::bytes_of(mailbox), field_with("{}"));
  EXPECT_EQ(mailbox.take().view(), "{}");
}

TEST(CommandMailbox, ATextEndsAtItsFirstNul) {
  using namespace std::string_view_literals;
  CommandMailbox mailbox{};
  mailbox.post("{1}\0{2}"sv);
  EXPECT_EQ(test::bytes_of(mailbox), field_with("{1}"));
  EXPECT_EQ(mailbox.take().view(), "{1}");
}

TEST(CommandMailbox, AnEmptyTextEmptiesIt) {
  using namespace std::string_view_literals;
  for (const auto text : {""sv, "\0{}"sv}) {
    CommandMailbox mailbox{};
    mailbox.post(long_text(511));
    mailbox.post(text);
    EXPECT_FALSE(mailbox.full());
    EXPECT_EQ(test::bytes_of(mailbox), kEmptyField);
  }
}

/// Another process may fill all of the field.
TEST(CommandMailbox, TakesNoMoreThan511CharactersOfAnyContent) {
  CommandMailbox mailbox{};
  test::set_bytes(mailbox, std::string(kSize, 'x'));
  EXPECT_TRUE(mailbox.full());
  EXPECT_EQ(mailbox.take().view(), std::string(511, 'x'));
  EXPECT_EQ(test::bytes_of(mailbox), kEmptyField);
}

TEST(CommandMailbox, BytesBehindAnEmptyTextAreNoText) {
  CommandMailbox mailbox{};
  test::set_bytes(mailbox, '\0' + std::string(kSize - 1, 'x'));
  EXPECT_FALSE(mailbox.full());
  EXPECT_EQ(mailbox.take().view(), "");
  mailbox.post("{");
  EXPECT_EQ(test::bytes_of(mailbox), field_with("{"));
}

/// The control thread polls while the viewer link posts. A writer that waits until its text was
/// taken finds every text arrive, whole and in order.
TEST(CommandMailbox, TextsArriveWhole) {
  CommandMailbox mailbox{};
  auto& chars = reinterpret_cast<std::array<Shared<char>, kSize>&>(mailbox);
  const auto text_number = [](std::size_t number) {
    return '{' + std::string(510 - number % 100, static_cast<char>('a' + number % 26));
  };
  std::atomic<std::size_t> posted = 0;
  std::atomic<std::size_t> taken = 0;
  // Neither thread ever gives way, so that they meet in the mailbox as often as they can.
  const test::Background writer([&] {
    if (posted != taken) return;
    mailbox.post(text_number(posted));
    ++posted;
  });
  std::size_t number = 0;
  std::string expected = text_number(0);
  test::hammer([&] {
    if (!mailbox.full()) return;
    // Its end is there as soon as its start is.
    ASSERT_EQ(chars[expected.size() - 1], expected.back());
    ASSERT_EQ(mailbox.take().view(), expected);
    expected = text_number(++number);
    // The writer counts a text after posting it.
    while (posted != number) {
    }
    taken = number;
  });
  EXPECT_GT(number, 0U);
}

}  // namespace
}  // namespace nimbus
