// The words of the commands that operate the camera and its gimbal, and what they stand for.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "base/word_table.h"
#include "camera/codes.h"

namespace nimbus {

// clang-format off
inline constexpr std::array<Word<std::uint8_t>, 4> kExposureModes{{
    {"auto", 1}, {"shutter", 2}, {"aperture", 3}, {"manual", 4},
}};
inline constexpr std::array<Word<std::uint8_t>, 2> kCameraModes{{
    {"photo", kPhotoMode}, {"video", kVideoMode},
}};
inline constexpr std::array<Word<std::uint8_t>, 2> kAspectRatios{{{"4:3", 0}, {"16:9", 1}}};
inline constexpr std::array<Word<std::uint8_t>, 2> kAntiFlickers{{{"50", 1}, {"60", 2}}};
inline constexpr std::array<Word<std::uint8_t>, 3> kShotModes{{{"raw", 0}, {"jpg", 1}, {"jpg+raw", 2}}};
inline constexpr std::array<Word<std::uint8_t>, 2> kFocusTypes{{{"afc", 2}, {"afs", 1}}};
// clang-format on

/// The white balances that have a word, with the rows that say what is sent.
inline constexpr auto kWhiteBalanceWords = [] {
  constexpr auto count = std::count_if(kWhiteBalances.begin(), kWhiteBalances.end(),
                                       [](const auto& row) { return row.tint != 0; });
  std::array<Word<WhiteBalance>, count> words{};
  std::size_t used = 0;
  for (const auto& row : kWhiteBalances) {
    if (row.tint != 0) words[used++] = {row.value, row};
  }
  return words;
}();

/// The ISO values that have a word, lowest first.
inline constexpr auto kIsoWords = [] {
  constexpr auto count = std::count_if(kIsoValues.begin(), kIsoValues.end(),
                                       [](const auto& row) { return !row.word.empty(); });
  std::array<Word<int>, count> words{};
  std::size_t used = 0;
  for (const auto& row : kIsoValues) {
    if (!row.word.empty()) words[used++] = {row.word, row.value};
  }
  return words;
}();

struct VideoFormat {
  int width;
  int height;
  int fps;
};

inline constexpr std::array<Word<VideoFormat>, 22> kVideoFormats{{
    {"4096x2160@25", {4096, 2160, 25}}, {"4096x2160@24", {4096, 2160, 24}},
    {"3840x2160@60", {3840, 2160, 60}}, {"3840x2160@30", {3840, 2160, 30}},
    {"3840x2160@25", {3840, 2160, 25}}, {"3840x2160@24", {3840, 2160, 24}},
    {"2704x1520@30", {2704, 1520, 30}}, {"2704x1520@25", {2704, 1520, 25}},
    {"2704x1520@24", {2704, 1520, 24}}, {"1920x1080@60", {1920, 1080, 60}},
    {"1920x1080@50", {1920, 1080, 50}}, {"1920x1080@48", {1920, 1080, 48}},
    {"1920x1080@30", {1920, 1080, 30}}, {"1920x1080@25", {1920, 1080, 25}},
    {"1920x1080@24", {1920, 1080, 24}}, {"1280x720@60", {1280, 720, 60}},
    {"1280x720@50", {1280, 720, 50}},   {"1280x720@48", {1280, 720, 48}},
    {"1280x720@30", {1280, 720, 30}},   {"1280x720@25", {1280, 720, 25}},
    {"1280x720@24", {1280, 720, 24}},   {"1920x1080@120", {1920, 1080, 120}},
}};

struct GimbalMode {
  std::uint8_t mode;
  std::uint8_t tilt_locked;
};

inline constexpr std::array<Word<GimbalMode>, 3> kGimbalModes{{
    {"tiltlocked", {.mode = 2, .tilt_locked = 1}},
    {"fpv", {.mode = 1, .tilt_locked = 0}},
    {"follow", {.mode = 2, .tilt_locked = 0}},
}};

/// Any other word is as good as the first.
inline constexpr std::array<Word<std::uint8_t>, 2> kFollowSpeeds{{{"fast", 0}, {"slow", 2}}};

}  // namespace nimbus
