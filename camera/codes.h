// The camera's codes and what they stand for. Commands look up the code of a value.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "base/word_table.h"

namespace nimbus {

/// A value that the camera knows by a code.
template <typename Value>
struct Code {
  Value value;
  std::uint8_t code;
};

/// The code of exactly that value, or `unknown`. The table is any range of Code.
template <typename Table, typename Value>
[[nodiscard]] constexpr std::uint8_t code_of(const Table& table, const Value& value,
                                             std::uint8_t unknown) noexcept {
  const auto found = std::find_if(std::begin(table), std::end(table),
                                  [&value](const auto& row) { return row.value == value; });
  return found == std::end(table) ? unknown : found->code;
}

inline constexpr std::array<Code<std::string_view>, 12> kColours{{
    {"none", 0},
    {"art", 1},
    {"black white", 4},
    {"vivid", 5},
    {"d-cinelike", 6},
    {"portrait", 7},
    {"beach", 14},
    {"dream", 16},
    {"classic", 18},
    {"nostalgia", 19},
    {"d-log", 23},
    {"d-clike", 52},
}};

/// Exposure compensation in EV, each the double nearest to the decimal number.
inline constexpr std::array<Code<double>, 19> kEvSteps{{
    {-3.0, 7},  {-2.7, 8},  {-2.3, 9}, {-2.0, 10}, {-1.7, 11}, {-1.3, 12}, {-1.0, 13},
    {-0.7, 14}, {-0.3, 15}, {0.0, 16}, {0.3, 17},  {0.7, 18},  {1.0, 19},  {1.3, 20},
    {1.7, 21},  {2.0, 22},  {2.3, 23}, {2.7, 24},  {3.0, 25},
}};

/// ISO values that can be commanded. 0 stands for automatic, like every value that is not listed.
inline constexpr std::array<Code<int>, 7> kIsoValues{{
    {100, 3},
    {200, 4},
    {400, 5},
    {800, 6},
    {1600, 7},
    {3200, 8},
    {6400, 9},
}};

struct PictureSize {
  int width;
  int height;
  bool operator==(const PictureSize&) const = default;
};

inline constexpr std::array<Code<PictureSize>, 5> kResolutions{{
    {{1280, 720}, 4},
    {{1920, 1080}, 10},
    {{3840, 2160}, 16},
    {{4096, 2160}, 22},
    {{2704, 1520}, 24},
}};

/// Frames a second.
inline constexpr std::array<Code<int>, 7> kFrameRates{{
    {24, 1},
    {25, 2},
    {30, 3},
    {48, 4},
    {50, 5},
    {60, 6},
    {120, 7},
}};

/// Every shutter time that the camera takes, longest exposure first: seconds with an "s", fractions
/// of a second by their denominator.
inline constexpr std::array<std::string_view, 57> kShutterTexts{
    "30s",  "25s",  "20s",  "15s",  "10s",  "9s",   "8s",   "7s",   "6s",   "5s",  "4s",  "3.2s",
    "3s",   "2.5s", "2s",   "1.6s", "1.3s", "1s",   "1.25", "1.67", "2",    "2.5", "3",   "4",
    "5",    "6.25", "8",    "10",   "12.5", "15",   "20",   "25",   "30",   "40",  "50",  "60",
    "80",   "100",  "120",  "160",  "200",  "240",  "320",  "400",  "500",  "640", "800", "1000",
    "1250", "1600", "2000", "2500", "3200", "4000", "5000", "6400", "8000",
};

/// A shutter time on the wire: u16 whole part with bit 15 set for fractions of a second, then the
/// digits behind the decimal point as a number.
using ShutterCode = std::array<std::uint8_t, 3>;

/// The code of one of kShutterTexts; three zeros for any other text.
[[nodiscard]] ShutterCode shutter_code(std::string_view text) noexcept;

}  // namespace nimbus
