#include "control/rc_map.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "display/region.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

constexpr const char* kRegionFile = "/dev/shm/hud_mem";
constexpr std::size_t kMapOffset = 1242;
constexpr std::size_t kChannels = 32;
constexpr std::uint8_t kNone = 255;

struct Word {
  const char* word;
  std::uint8_t code;
};

constexpr std::array<Word, 22> kWords{{
    {"pan", 0},
    {"tilt", 1},
    {"record", 2},
    {"record-shot", 3},
    {"menu", 4},
    {"ev", 5},
    {"zoom", 6},
    {"focus", 7},
    {"dutch", 8},
    {"focus-pan", 9},
    {"focus-tilt", 10},
    {"digital-zoom", 11},
    {"digital-zoom2", 12},
    {"iso", 13},
    {"shutter", 14},
    {"aperture", 15},
    {"videomode", 16},
    {"custom-focus-assistant", 17},
    {"center", 18},
    {"intcamera", 19},
    {"osd", 20},
    {"orient-lock", 21},
}};

using Codes = std::vector<std::uint8_t>;

/// The codes of all channels when the first ones are those, and the others drive nothing.
Codes first_codes(Codes codes) {
  codes.resize(kChannels, kNone);
  return codes;
}

std::string repeat(std::string_view text, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

class RcMap : public testing::Test {
 protected:
  RcMap() {
    std::filesystem::remove_all(kRegionFile);
    EXPECT_NE(map_display_region(), nullptr);
  }

  /// The published map after parsing that text, over a region full of other bytes. Nothing but the
  /// map may change.
  static Codes parsed(std::string_view text) {
    const std::string before(sizeof(DisplayRegion), '\xA5');
    test::set_bytes(*display_region(), before);
    parse_rc_input_map(text);
    const std::string after = test::read_file(kRegionFile);
    EXPECT_EQ(after.substr(0, kMapOffset), before.substr(0, kMapOffset));
    EXPECT_EQ(after.substr(kMapOffset + kChannels), before.substr(kMapOffset + kChannels));
    const std::string map = after.substr(kMapOffset, kChannels);
    return {map.begin(), map.end()};
  }
};

TEST_F(RcMap, EveryWordHasItsCode) {
  for (const auto& row : kWords) {
    EXPECT_EQ(parsed(row.word), first_codes({row.code})) << row.word;
    EXPECT_EQ(parsed(std::string(",") + row.word + ','), first_codes({kNone, row.code}))
        << row.word;
  }
}

TEST_F(RcMap, WordsMatchExactly) {
  const Codes nothing = first_codes({});
  for (const auto& row : kWords) {
    SCOPED_TRACE(row.word);
    const std::string word = row.word;
    std::string capitals = word;
    for (char& c : capitals) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    }
    EXPECT_EQ(parsed(capitals), nothing);
    EXPECT_EQ(parsed(capitals.substr(0, 1) + word.substr(1)), nothing);
    EXPECT_EQ(parsed(' ' + word), nothing);
    EXPECT_EQ(parsed(word + ' '), nothing);
    EXPECT_EQ(parsed('\t' + word), nothing);
    EXPECT_EQ(parsed(word + '\r'), nothing);
    EXPECT_EQ(parsed('"' + word + '"'), nothing);
    EXPECT_EQ(parsed(word + 'x'), nothing);
    EXPECT_EQ(parsed(word.substr(1)), nothing);
  }
}

/// Some words begin like others; none is taken for another.
TEST_F(RcMap, APartOfAWordIsNoWord) {
  for (const auto& row : kWords) {
    const std::string word = row.word;
    for (std::size_t length = 1; length < word.size(); ++length) {
      const std::string part = word.substr(0, length);
      const auto* const other =
          std::find_if(kWords.begin(), kWords.end(),
                       [&part](const Word& candidate) { return part == candidate.word; });
      const std::uint8_t code = other == kWords.end() ? kNone : other->code;
      EXPECT_EQ(parsed(part), first_codes({code})) << part;
    }
  }
}

TEST_F(RcMap, ChannelsFollowTheOrderOfTheWords) {
  EXPECT_EQ(parsed("pan,tilt,record,,ev"), first_codes({0, 1, 2, kNone, 5}));
  EXPECT_EQ(parsed("orient-lock,digital-zoom2,digital-zoom"), first_codes({21, 12, 11}));
  EXPECT_EQ(parsed("pan,pan,pan"), first_codes({0, 0, 0})) << "a word may stand more than once";
}

TEST_F(RcMap, AllWordsInOneMap) {
  std::string map;
  Codes codes;
  for (const auto& row : kWords) {
    map += std::string(row.word) + ',';
    codes.push_back(row.code);
  }
  EXPECT_EQ(parsed(map), first_codes(codes));
}

TEST_F(RcMap, UnknownAndEmptyWordsDriveNothing) {
  EXPECT_EQ(parsed(""), first_codes({}));
  EXPECT_EQ(parsed(","), first_codes({}));
  EXPECT_EQ(parsed(repeat(",", 31)), first_codes({}));
  EXPECT_EQ(parsed("none,255,0,pan;tilt,pan tilt,-"), first_codes({}));
  EXPECT_EQ(parsed("unknown,,pan"), first_codes({kNone, kNone, 0}));
  EXPECT_EQ(parsed("pan,"), first_codes({0}));
  EXPECT_EQ(parsed(",,,osd,"), first_codes({kNone, kNone, kNone, 20}));
}

TEST_F(RcMap, WordsBehindThe32ndAreIgnored) {
  const Codes all_iso(kChannels, 13);
  Codes all_but_last = all_iso;
  all_but_last.back() = kNone;
  EXPECT_EQ(parsed(repeat("iso,", 30) + "iso"), all_but_last);
  EXPECT_EQ(parsed(repeat("iso,", 31) + "iso"), all_iso);
  EXPECT_EQ(parsed(repeat("iso,", 32)), all_iso);
  EXPECT_EQ(parsed(repeat("iso,", 32) + "pan"), all_iso);
  EXPECT_EQ(parsed(repeat("iso,", 39) + "pan"), all_iso);
  EXPECT_EQ(parsed(repeat(",", 31) + "osd,pan"), [] {
    Codes last(kChannels, kNone);
    last.back() = 20;
    return last;
  }());
}

TEST_F(RcMap, TextsOfAnyLengthAreBounded) {
  EXPECT_EQ(parsed(std::string(511, ',')), first_codes({}));
  EXPECT_EQ(parsed(std::string(511, 'x')), first_codes({}));
  EXPECT_EQ(parsed("pan," + std::string(507, 'x')), first_codes({0}));
  EXPECT_EQ(parsed(std::string(100'000, ',')), first_codes({}));
}

TEST_F(RcMap, ALaterMapReplacesAllOfTheFormer) {
  ASSERT_EQ(parsed("pan,tilt,record"), first_codes({0, 1, 2}));
  parse_rc_input_map("osd");
  const std::string map = test::read_file(kRegionFile).substr(kMapOffset, kChannels);
  EXPECT_EQ(Codes(map.begin(), map.end()), first_codes({20}));
}

TEST_F(RcMap, NothingHappensWithoutARegion) {
  test::write_file(kRegionFile, "too short");
  {
    const test::Console console;
    ASSERT_EQ(map_display_region(), nullptr);
  }
  parse_rc_input_map("pan,tilt");
  EXPECT_EQ(test::read_file(kRegionFile), "too short");
}

TEST(RcFunction, CodesAreThoseOfTheMap) {
  EXPECT_EQ(static_cast<int>(RcFunction::pan), 0);
  EXPECT_EQ(static_cast<int>(RcFunction::orient_lock), 21);
  EXPECT_EQ(static_cast<int>(RcFunction::none), 255);
}

}  // namespace
}  // namespace nimbus
