#include "config/hdmi_modes.h"

#include <gtest/gtest.h>

namespace nimbus {
namespace {

constexpr auto kCea = HdmiGroup::cea;
constexpr auto kDmt = HdmiGroup::dmt;

constexpr struct {
  const char* name;
  HdmiGroup group;
  int mode;
} kModes[] = {
    // clang-format off
    {"default",           kCea,  0},
    {"640x480@60p CEA",   kCea,  1},
    {"1280x720@50p CEA",  kCea, 19},
    {"1280x720@60p CEA",  kCea,  4},
    {"1920x1080@50i CEA", kCea, 20},
    {"1920x1080@50p CEA", kCea, 31},
    {"1920x1080@60i CEA", kCea,  5},
    {"1920x1080@60p CEA", kCea, 16},
    {"1920x1080@24p CEA", kCea, 32},
    {"1920x1080@25p CEA", kCea, 33},
    {"1920x1080@30p CEA", kCea, 34},
    {"640x480@60p DMT",   kDmt,  4},
    {"640x480@75p DMT",   kDmt,  6},
    {"800x600@60p DMT",   kDmt,  9},
    {"800x600@75p DMT",   kDmt, 11},
    {"1024x768@60p DMT",  kDmt, 16},
    {"1024x768@75p DMT",  kDmt, 18},
    {"1152x864@75p DMT",  kDmt, 21},
    {"1280x1024@60p DMT", kDmt, 35},
    {"1280x1024@75p DMT", kDmt, 36},
    {"1920x1080@60p DMT", kDmt, 82},
    // clang-format on
};

TEST(HdmiModes, KnowsEachMode) {
  for (const auto& row : kModes) {
    const HdmiMode* const found = hdmi_mode_lookup(row.name);
    ASSERT_NE(found, nullptr) << row.name;
    EXPECT_EQ(found->group, row.group) << row.name;
    EXPECT_EQ(found->mode, row.mode) << row.name;
  }
}

TEST(HdmiModes, TakesNamesExactly) {
  for (const char* const name :
       {"", "Default", "default ", " default", "640x480@60P CEA", "640x480@60p  CEA",
        "640x480@60pCEA", "640x480@60p cea", "640x480@60p", "640x480@60p CEA ", "1920x1080@24p DMT",
        "1920x1080@60p DMT\n"}) {
    EXPECT_EQ(hdmi_mode_lookup(name), nullptr) << name;
  }
}

}  // namespace
}  // namespace nimbus
