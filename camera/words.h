// The words of the commands that operate the camera and its gimbal, and what they stand for.
#pragma once

#include <array>
#include <cstdint>

#include "base/word_table.h"

namespace nimbus {

// clang-format off
inline constexpr std::array<Word<std::uint8_t>, 4> kExposureModes{{
    {"auto", 1}, {"shutter", 2}, {"aperture", 3}, {"manual", 4},
}};
inline constexpr std::array<Word<std::uint8_t>, 2> kAspectRatios{{{"4:3", 0}, {"16:9", 1}}};
inline constexpr std::array<Word<std::uint8_t>, 2> kAntiFlickers{{{"50", 1}, {"60", 2}}};
inline constexpr std::array<Word<std::uint8_t>, 3> kShotModes{{{"raw", 0}, {"jpg", 1}, {"jpg+raw", 2}}};
inline constexpr std::array<Word<std::uint8_t>, 2> kFocusTypes{{{"afc", 2}, {"afs", 1}}};

// The second byte that goes with the code of each white balance that can be commanded.
inline constexpr std::array<Word<std::uint8_t>, 5> kWhiteBalanceTints{{
    {"auto", 0x44}, {"sunny", 0x30}, {"cloudy", 0x40}, {"incandescent", 0x44}, {"neon", 0x19},
}};
// clang-format on

inline constexpr std::array<Word<int>, 8> kIsoWords{{
    {"auto", 0},
    {"100", 100},
    {"200", 200},
    {"400", 400},
    {"800", 800},
    {"1600", 1600},
    {"3200", 3200},
    {"6400", 6400},
}};

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
