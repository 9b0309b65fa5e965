#include "camera/camera.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>

#include "base/wire.h"
#include "tests/unit/camera_end.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using test::Bytes;
using test::Texts;

// The results of the operations, and arguments that no command passes on. All of the commands'
// words are tested from outside.
struct Call {
  const char* name;
  std::function<std::int32_t()> run;
  std::int32_t result;  ///< the length of the last frame, -1 where there is none
  Texts lines;
  Bytes payload;  ///< of the last frame
};

using IntLimits = std::numeric_limits<std::int32_t>;

const Call kCalls[] = {
    {"record", [] { return camera_record(-7); }, 14, {"Record start\n"}, {1}},
    {"record stop", [] { return camera_record(0); }, 14, {"Record stop\n"}, {0}},
    {"mode", [] { return camera_set_mode(1); }, 14, {"Camera set mode video\n"}, {1}},
    {"shot", [] { return camera_shot(); }, 14, {"Camera shot\n"}, {1}},
    {"mode 2", [] { return camera_set_mode(2); }, -1, {}, {}},
    {"mode -1", [] { return camera_set_mode(-1); }, -1, {}, {}},
    {"ev", [] { return camera_set_ev(-0.0); }, 14, {}, {16}},
    {"ev 0.33", [] { return camera_set_ev(0.33); }, -1, {}, {}},
    {"iso 0", [] { return camera_set_iso(0); }, 14, {"Camera set iso 0\n"}, {0}},
    {"iso 150", [] { return camera_set_iso(150); }, 14, {"Camera set iso 150\n"}, {0}},
    // The camera reports these, but takes them from nobody.
    {"iso 25", [] { return camera_set_iso(25); }, 14, {"Camera set iso 25\n"}, {0}},
    {"iso 50", [] { return camera_set_iso(50); }, 14, {"Camera set iso 50\n"}, {0}},
    {"iso 65636", [] { return camera_set_iso(65'636); }, 14, {"Camera set iso 65636\n"}, {0}},
    {"iso -1", [] { return camera_set_iso(-1); }, 14, {"Camera set iso -1\n"}, {0}},
    {"shutter",
     [] { return camera_set_shutter("100"); },
     17,
     {"Camera set shutter 100\n"},
     {1, 0x64, 0x80, 0}},
    {"aperture",
     [] { return camera_set_aperture(2.8); },
     15,
     {"Camera set aperture 2.80\n"},
     {0x18, 0x01}},
    {"aperture, truncated",
     [] { return camera_set_aperture(2.799); },
     15,
     {"Camera set aperture 2.80\n"},
     {0x17, 0x01}},
    {"aperture, negative",
     [] { return camera_set_aperture(-0.019); },
     15,
     {"Camera set aperture -0.02\n"},
     {0xFF, 0xFF}},
    {"white balance",
     [] { return camera_set_white_balance("custom", nullptr); },
     -1,
     {"Camera set WB custom\n"},
     {}},
    {"temperature",
     [] { return camera_set_white_balance("custom", "5600"); },
     15,
     {"Camera set WB custom\n", "Camera set WB temperature 5600\n"},
     {0x06, 56}},
    {"temperature, too low",
     [] { return camera_set_white_balance("custom", "1900"); },
     -1,
     {"Camera set WB custom\n", "Camera set WB temperature 1900\n"},
     {}},
    {"no temperature needed",
     [] { return camera_set_white_balance("neon", nullptr); },
     15,
     {"Camera set WB neon\n"},
     {0x05, 0x19}},
    {"other white balance",
     [] { return camera_set_white_balance("unknown", "5600"); },
     -1,
     {"Camera set WB unknown\n"},
     {}},
    {"colour", [] { return camera_set_colour("art"); }, 14, {"set color art\n"}, {1}},
    {"other colour", [] { return camera_set_colour("?"); }, 14, {"set color ?\n"}, {0}},
    {"histogram",
     [] { return camera_set_histogram(IntLimits::min()); },
     14,
     {"Camera histogram enable\n"},
     {0}},
    {"resolution",
     [] { return camera_set_video_resolution(640, 480, 30); },
     15,
     {"Camera set video resolution 640x480@30\n"},
     {0x00, 0x03}},
    {"frame rate",
     [] { return camera_set_video_resolution(1920, 1080, -1); },
     15,
     {"Camera set video resolution 1920x1080@-1\n"},
     {0x0A, 0x00}},
    {"mixed size",
     [] { return camera_set_video_resolution(3840, 1080, 25); },
     15,
     {"Camera set video resolution 3840x1080@25\n"},
     {0x00, 0x02}},
    {"exposure lock",
     [] { return camera_set_ae_lock(257); },
     14,
     {"Camera set auto exposure lock to 257\n"},
     {1}},
    {"exposure point",
     [] { return camera_set_exposure_point(-2); },
     14,
     {"Camera set exposure point -2\n"},
     {0xFE}},
    {"exposure center",
     [] { return camera_set_exposure_centre(); },
     14,
     {"Camera set exposure to center\n"},
     {0}},
    {"exposure mode",
     [] { return camera_set_exposure_mode("manual"); },
     15,
     {"Camera set video mode manual\n"},
     {4, 0}},
    {"other exposure mode",
     [] { return camera_set_exposure_mode("?"); },
     -1,
     {"Camera set video mode ?\n"},
     {}},
    {"aspect ratio",
     [] { return camera_set_aspect_ratio("16:9"); },
     15,
     {"Camera set image aspect ratio 16:9\n"},
     {0, 1}},
    {"other aspect ratio",
     [] { return camera_set_aspect_ratio("21:9"); },
     -1,
     {"Camera set image aspect ratio 21:9\n"},
     {}},
    {"anti-flicker",
     [] { return camera_set_anti_flicker("?"); },
     14,
     {"Camera set anti-flicker ?\n"},
     {0}},
    {"shot mode",
     [] { return camera_set_shot_mode("jpg+raw"); },
     14,
     {"Camera set shot mode jpg+raw\n"},
     {2}},
    {"other shot mode",
     [] { return camera_set_shot_mode("?"); },
     -1,
     {"Camera set shot mode ?\n"},
     {}},
    {"focus type",
     [] { return camera_set_focus_type("afc"); },
     14,
     {"Camera set focus type afc\n"},
     {2}},
    {"other focus type",
     [] { return camera_set_focus_type("?"); },
     -1,
     {"Camera set focus type ?\n"},
     {}},
    {"focus point",
     [] { return camera_set_focus_point(0.5F, 0.25F); },
     21,
     {"Camera set focus type afs\n", "Camera set focus point 0.500000,0.250000\n"},
     {0, 0, 0, 0x3F, 0, 0, 0x80, 0x3E}},
    {"reset", [] { return camera_reset(); }, 14, {}, {0}},
    {"format", [] { return camera_format_card(); }, 13, {"Format microSD card\n"}, {}},
};

TEST(Camera, Calls) {
  test::CameraEnd camera;
  for (const Call& call : kCalls) {
    SCOPED_TRACE(call.name);
    test::Console console;
    EXPECT_EQ(call.run(), call.result);
    EXPECT_EQ(console.texts(), call.lines);
    Bytes last;
    for (;;) {
      const Bytes frame = camera.receive(std::chrono::milliseconds(0));
      if (frame.empty()) break;
      EXPECT_TRUE(test::is_sound(frame));
      last = frame;
    }
    ASSERT_EQ(last.size(), call.result < 0 ? 0U : static_cast<unsigned>(call.result));
    if (last.empty()) continue;
    EXPECT_EQ(Bytes(last.begin() + 11, last.end() - 2), call.payload);
  }
}

/// Single precision, in which a command's text comes, loses none of the hundredths that the field
/// holds.
TEST(Camera, EveryHundredthOfAnAperture) {
  test::CameraEnd camera;
  test::Console console;
  for (int hundredths = 0; hundredths <= std::numeric_limits<std::int16_t>::max(); ++hundredths) {
    std::array<char, 24> text;
    std::snprintf(text.data(), text.size(), "%d.%02d", hundredths / 100, hundredths % 100);
    ASSERT_EQ(camera_set_aperture(std::strtof(text.data(), nullptr)), 15);
    ASSERT_EQ(console.texts(), Texts{"Camera set aperture " + std::string(text.data()) + '\n'});
    const Bytes frame = camera.receive();
    ASSERT_EQ(frame.size(), 15U);
    ASSERT_EQ(load_le<std::int16_t>(frame, 11), hundredths);
  }
}

}  // namespace
}  // namespace nimbus
