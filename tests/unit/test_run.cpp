#include "config/run.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "tests/unit/board_tools.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kMostCaptured = 10'000;

TEST(Run, CapturesTheBeginningOfTheOutput) {
  const std::string many = "head -c 20000 /dev/zero | tr '\\0' x";
  const struct {
    std::string command;
    std::string output;
  } kRows[] = {
      {"printf 'one\\ntwo\\n'", "one\ntwo\n"},
      {"head -c 9999 /dev/zero | tr '\\0' x", std::string(kMostCaptured - 1, 'x')},
      {many + " | head -c 10000", std::string(kMostCaptured, 'x')},
      {many + " | head -c 10001", std::string(kMostCaptured, 'x')},
      {many, std::string(kMostCaptured, 'x')},
      {"printf a; sleep 0.1; printf b", "ab"},
      {"printf late; exit 3", "late"},
      {"true", ""},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.command);
    const char* const output = run_capture(row.command.c_str());
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(output, row.output);
    // Nothing of a longer one before is left.
    EXPECT_TRUE(std::all_of(output + row.output.size(), output + kMostCaptured + 1,
                            [](char c) { return c == '\0'; }));
  }
}

TEST(Run, CapturesNothingWithoutACommand) {
  const test::NoDescriptors none;
  EXPECT_EQ(run_capture("echo line"), nullptr);
}

/// What run_last_line() leaves in a buffer of '#' and of that size.
std::string last_line(const char* command, std::size_t size, int& status) {
  std::array<char, 16> memory;
  memory.fill('#');
  status = run_last_line(command, std::span(memory).first(size));
  EXPECT_EQ(std::string(memory.begin() + static_cast<std::ptrdiff_t>(size), memory.end()),
            std::string(memory.size() - size, '#'));
  return {memory.data(), size};
}

TEST(Run, KeepsTheLastLine) {
  const struct {
    const char* command;
    std::string_view buffer;
  } kRows[] = {
      {"printf 'one\\ntwo\\n'", "two\0\0###"sv},
      {"printf 'one\\ntwo'", "two\0\0###"sv},
      {"printf 'longer\\nab\\n'", "ab\0\0er\0\0"sv},
      {"printf 'a\\tb\\r\\n'", "a b\0\0\0##"sv},
      {"printf 'one\\n\\n'", "\0\0e\0\0###"sv},
      {"printf '1234567'", "1234567\0"sv},
      {"true", "########"sv},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.command);
    int status = -1;
    EXPECT_EQ(last_line(row.command, 8, status), row.buffer);
    EXPECT_EQ(status, 0);
  }
}

TEST(Run, KeepsTheLastPieceOfALongLine) {
  int status = -1;
  EXPECT_EQ(last_line("printf '0123456789\\n'", 8, status),
            "789\0\0"
            "56\0"sv);
}

TEST(Run, AlsoTheCallersBytesAreReplaced) {
  std::array<char, 6> buffer{'a', '\t', '\r', '\n', '\t', 'z'};
  run_last_line("true", buffer);
  EXPECT_EQ(std::string_view(buffer.data(), buffer.size()), "a \0\0 z"sv);
}

TEST(Run, LastLineTellsHowTheCommandEnded) {
  int status = -1;
  EXPECT_EQ(last_line("echo a; exit 7", 8, status), "a\0\0#####"sv);
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(Run, ABufferWithoutRoomIsLeftAlone) {
  int status = -1;
  EXPECT_EQ(last_line("echo line", 1, status), "#");
  EXPECT_EQ(last_line("echo line", 0, status), "");
}

TEST(Run, NoLastLineWithoutACommand) {
  const test::NoDescriptors none;
  std::array<char, 4> buffer{'\n', '\t', '#', '#'};
  EXPECT_EQ(run_last_line("echo line", buffer), -1);
  EXPECT_EQ(std::string_view(buffer.data(), buffer.size()), "\n\t##"sv);
}

TEST(Run, FindsTheFirstPlace) {
  EXPECT_EQ(find_index("abcabc", "bc"), 1);
  EXPECT_EQ(find_index("abcabc", "abc"), 0);
  EXPECT_EQ(find_index("abcabc", "c"), 2);
  EXPECT_EQ(find_index("abc", ""), 0);
  EXPECT_EQ(find_index("", ""), 0);
  EXPECT_EQ(find_index("", "a"), -1);
  EXPECT_EQ(find_index("abc", "abcd"), -1);
  EXPECT_EQ(find_index("abc", "B"), -1);
  EXPECT_EQ(find_index("\xc3\xa9z", "z"), 2);
}

}  // namespace
}  // namespace nimbus
