#include "tools/ctl/output.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace nimbus::ctl {
namespace {

using namespace std::string_view_literals;

TEST(Output, ShowsNothingThatATerminalObeys) {
  struct Row {
    std::string_view text;
    std::string_view shown;
  };
  const Row rows[] = {
      {"plain ~ text", "plain ~ text"},
      {"a\0b\tc\r\n\033[2J\x7F"sv, "a?b?c???[2J?"},
      {"\xC2\x80|\xC2\x9B"sv
       "31m|\xC2\x9F",
       "?|?31m|?"},
      {"\xC2\xA0\xC3\xA9\xE2\x82\xAC\xF0\x9F\x93\xB7",
       "\xC2\xA0\xC3\xA9\xE2\x82\xAC\xF0\x9F\x93\xB7"},
      // Outside of a character, the same bytes are control characters of Latin-1.
      {"\x9B"
       "31m",
       "?31m"},
      {"\xC3\x9B\x9B\xC3", "\xC3\x9B?\xC3"},
      {"\xE2\x82", "\xE2?"},
      {"\xC2", "\xC2"},
      {"\xFF\xE9", "\xFF\xE9"},
      {"", ""},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(shown(text), expected);
}

}  // namespace
}  // namespace nimbus::ctl
