// The sizes that the viewers' stream can be transcoded to, by the words of the command.
#pragma once

#include <array>
#include <cstdint>

#include "base/word_table.h"

namespace nimbus {

/// In pixels.
struct StreamSize {
  std::int32_t width;
  std::int32_t height;
};

/// Any other word is as good as this size.
inline constexpr StreamSize kDefaultStreamSize{1280, 720};

inline constexpr std::array<Word<StreamSize>, 3> kStreamSizes{{
    {"320x240", {320, 240}},
    {"640x480", {640, 480}},
    {"1280x720", kDefaultStreamSize},
}};

}  // namespace nimbus
