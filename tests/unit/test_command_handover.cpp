#include "display/command_handover.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <thread>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

const std::string kEmptyField(CommandMailbox::kSize, '\0');

/// The service's two threads on one mailbox, which other processes map, too.
class Handover : public testing::Test {
 protected:
  CommandMailbox mailbox_{};
  CommandHandover handover_;
};

TEST_F(Handover, ACommandIsTakenOnce) {
  handover_.post(mailbox_, "{1}");
  EXPECT_TRUE(mailbox_.full()) << "others see it wait";
  EXPECT_EQ(handover_.take(mailbox_).view(), "{1}");
  EXPECT_EQ(test::bytes_of(mailbox_), kEmptyField);
  EXPECT_EQ(handover_.take(mailbox_).view(), "");
}

TEST_F(Handover, ALaterCommandReplacesAnEarlierOne) {
  handover_.post(mailbox_, std::string(511, '{'));
  handover_.post(mailbox_, "{2}");
  EXPECT_EQ(handover_.take(mailbox_).view(), "{2}");
  EXPECT_EQ(handover_.take(mailbox_).view(), "");
}

TEST_F(Handover, ACommandIsCutAsTheMailboxCutsIt) {
  using namespace std::string_view_literals;
  test::set_bytes(mailbox_, kEmptyField);
  for (const auto& [text, kept] : {std::pair{std::string(600, 'x'), std::string(511, 'x')},
                                   std::pair{std::string("{1}\0{2}"sv), std::string("{1}")}}) {
    handover_.post(mailbox_, text);
    test::set_bytes(mailbox_, kEmptyField);  // so that what was kept is what is taken
    EXPECT_EQ(handover_.take(mailbox_).view(), kept);
  }
}

TEST_F(Handover, AnyProcessMayWriteACommand) {
  mailbox_.post("{sibling}");
  EXPECT_EQ(handover_.take(mailbox_).view(), "{sibling}");
  EXPECT_EQ(test::bytes_of(mailbox_), kEmptyField);
}

TEST_F(Handover, WhatAnotherProcessWritesOverACommandIsTheLaterOne) {
  handover_.post(mailbox_, "{viewer}");
  mailbox_.post("{sibling}");
  EXPECT_EQ(handover_.take(mailbox_).view(), "{sibling}");
  EXPECT_EQ(handover_.take(mailbox_).view(), "") << "and replaces it";
}

TEST_F(Handover, ACommandIsNotLostWithTheMailbox) {
  handover_.post(mailbox_, "{viewer}");
  test::set_bytes(mailbox_, kEmptyField);
  EXPECT_EQ(handover_.take(mailbox_).view(), "{viewer}");
}

TEST_F(Handover, BytesBehindAnEmptyTextStay) {
  const std::string content = '\0' + std::string(CommandMailbox::kSize - 1, 'x');
  test::set_bytes(mailbox_, content);
  EXPECT_EQ(handover_.take(mailbox_).view(), "");
  EXPECT_EQ(test::bytes_of(mailbox_), content);
}

/// A command of any length that shows whether it is whole.
std::string command(std::size_t number) {
  return std::string(1 + number * 37 % 510, static_cast<char>('a' + number % 26)) + '.';
}

bool is_whole(std::string_view text) {
  return text.size() > 1 && text.back() == '.' &&
         text.find_first_not_of(text[0]) == text.size() - 1;
}

/// 1,000 floods that end with a known command, while the control thread takes as fast as it can:
/// each command is taken whole or replaced, and the last one always taken.
TEST_F(Handover, TheLastCommandOfAFloodIsAlwaysTaken) {
  constexpr std::size_t kFlood = 7;
  std::atomic<bool> posted_all = false;
  std::string last;
  // The link's thread: posts a flood as soon as the last one has been taken.
  std::atomic<std::size_t> rounds = 0;
  const test::Background link([&] {
    if (posted_all) return;
    for (std::size_t i = 0; i < kFlood; ++i) handover_.post(mailbox_, command(rounds + i));
    handover_.post(mailbox_, "{last " + std::to_string(rounds) + "}");
    posted_all = true;
  });
  const test::Processor first(0);
  while (rounds < 1000) {
    const bool all = posted_all;
    const auto text = handover_.take(mailbox_);
    if (!text.view().empty()) {
      last = text.view();
      ASSERT_TRUE(last[0] == '{' || is_whole(last)) << last;
    }
    if (!all) continue;
    ASSERT_EQ(last, "{last " + std::to_string(rounds) + "}") << "nothing follows it";
    ASSERT_EQ(test::bytes_of(mailbox_), kEmptyField);
    ++rounds;
    posted_all = false;
  }
}

}  // namespace
}  // namespace nimbus
