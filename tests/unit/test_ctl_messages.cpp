#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <set>
#include <vector>

#include "display/region.h"
#include "tools/ctl/gap_counter.h"
#include "tools/ctl/hud.h"
#include "tools/ctl/json.h"
#include "tools/ctl/messages.h"
#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::string shown(const Bytes& payload) { return text_of(decode_message(payload)); }

/// A payload of that size and type, with those bytes at some offset.
Bytes payload(std::size_t size, std::uint8_t type, std::size_t at = 1, const Bytes& bytes = {}) {
  Bytes result(size);
  result[0] = type;
  std::copy(bytes.begin(), bytes.end(), result.begin() + static_cast<std::ptrdiff_t>(at));
  return result;
}

TEST(CtlMessages, StatusMessages) {
  EXPECT_EQ(shown({5, 0, 2, 0, 0, 0, 0}), "connection: source camera data, connected yes");
  EXPECT_EQ(shown({5, 1, 0, 0, 0, 0, 0}), "connection: source video, connected no");
  EXPECT_EQ(shown({5, 9, 1, 0, 0, 0, 0}), "connection: source source 9, connected no");
  EXPECT_EQ(shown({6, 0x17, 3, 0, 0, 6, 0}),
            "flags: access point yes, hdmi yes, camera data yes, viewers 3, rc status 6");
  EXPECT_EQ(shown({6, 0x01, 0, 0, 0, 0, 0}),
            "flags: access point no, hdmi no, camera data no, viewers 0, rc status 0");
  EXPECT_EQ(shown({11, 0, 3, 7, 2, 0, 0}), "version: version 0.3.7, variant 2");
  EXPECT_EQ(shown({11, 255, 255, 255, 2, 0, 0}), "version: version 255.255.255, variant 2");
  EXPECT_EQ(shown({16, 1, 0, 0, 0, 0, 0}), "lens flag: lens flag yes");
}

TEST(CtlMessages, Triples) {
  // -17900, 100, 9000 hundredths of a degree.
  EXPECT_EQ(shown({0, 0x14, 0xBA, 0x64, 0x00, 0x28, 0x23}),
            "gimbal attitude: angle 1 -179°, angle 2 1°, angle 3 90°");
  EXPECT_EQ(shown({10, 0x4D, 0xFF, 0x01, 0x00, 0x5A, 0x00}),
            "gimbal angles: angle 1 -179°, angle 2 1°, angle 3 90°");
  EXPECT_EQ(shown({8, 1, 0, 0, 0, 0, 0}), "orientation: locked yes");
  EXPECT_EQ(shown({13, 0x88, 0x13, 0x3C, 0xF6, 0x07, 0x00}),
            "focus values: focus 1 0.5, focus 2 -0.25, focus 3 7");
  EXPECT_EQ(shown({19, 1, 0, 0, 0, 0x10, 0xEA}),
            "recording timer: state 1, reset no, seconds 59920 s");
  EXPECT_EQ(shown({20, 2, 0, 0x96, 0, 0x9F, 0}), "zoom: focus mode 2, ratio 150 %, zoom 1.59");
}

TEST(CtlMessages, CameraSettings) {
  const Bytes message{2,    4,    21,   0, 23, 0xFD, 2,    10, 3, 56, 0x34, 0x12, 3, 2, 1, 67,
                      0x05, 0x18, 0x01, 0, 43, 50,   0x80, 0,  2, 0,  0,    0,    0, 0, 0};
  ASSERT_EQ(message.size(), 31U);
  EXPECT_EQ(shown(message),
            "camera settings: exposure mode M, iso 400, shutter 1/50 s, aperture 2.8, ev -0.3, "
            "white balance cloudy, colour temperature 5600 K, colour d-log, resolution 1920x1080, "
            "frame rate 30 fps, photo format JPG+RAW, settings 728 4660, settings 736 66051, "
            "settings 789 67, settings 790 21, settings 791 43");
}

TEST(CtlMessages, UnknownCodesHaveNumbers) {
  const std::string text = shown(payload(31, 2, 1, Bytes(30, 0xFF)));
  for (const char* const part :
       {"exposure mode code 255", "iso code 255", "white balance code 255", "colour code 255",
        "resolution code 255", "frame rate 0 fps", "photo format code 255", "ev -0.1"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
  }
  EXPECT_NE(shown(payload(31, 2)).find("iso auto"), std::string::npos);
}

TEST(CtlMessages, CameraStatus) {
  EXPECT_EQ(
      shown({7, 1, 2, 0x70, 0x11, 1, 0, 4, 0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0, 0, 0, 42, 13, 44}),
      "camera status: camera mode video, status 792 2, status 793 42, status 794 13, "
      "status 796 70000, status 800 4, status 804 5, status 808 6, last byte 44");
}

TEST(CtlMessages, Tracking) {
  EXPECT_EQ(shown({21, 1, 0xFF, 0x3F, 0xFF, 0x7F, 0x99, 0x19, 0xFF, 0xFF}),
            "tracking: on yes, x 0.25, y 0.5, width 0.1, height 1");
}

TEST(CtlMessages, Lists) {
  EXPECT_EQ(shown(payload(65, 14, 1, {1, 2, 255})).substr(0, 26), "histogram: bins 1 2 255 0 ");
  const Message channels = decode_message(payload(67, 15, 1, {6, 32, 0xE8, 0x03}));
  EXPECT_EQ(std::get<std::vector<int>>(channels.fields[1].value).size(), 32U);
  EXPECT_EQ(std::get<std::vector<int>>(channels.fields[1].value)[0], 1000);
  // The number of channels is believed up to what there is room for.
  const Message more = decode_message(payload(67, 15, 1, {6, 255}));
  EXPECT_EQ(std::get<std::vector<int>>(more.fields[1].value).size(), 32U);
}

TEST(CtlMessages, Unknown) {
  EXPECT_EQ(shown({}), "unknown: size 0, hex ");
  EXPECT_EQ(shown({99}), "unknown: size 1, hex 63");
  for (int type = 0; type < '{'; ++type) {
    // No kind has this size.
    EXPECT_EQ(decode_message(payload(9, static_cast<std::uint8_t>(type))).name, "unknown");
  }
}

TEST(CtlMessages, JsonTexts) {
  const auto name = [](std::string_view text) {
    return decode_message(Bytes(text.begin(), text.end())).name;
  };
  EXPECT_EQ(name(R"({"app":"nimbus","vw":1})"), "report");
  EXPECT_EQ(name(R"({"cmd":"wlanscan","param":"1","value":"a,b"})"), "wifi_scan");
  EXPECT_EQ(name(R"({"other":1})"), "json");
  EXPECT_EQ(name(R"({"app":"nimbus)"), "json");
  EXPECT_EQ(name("{"), "json");
}

TEST(CtlMessages, Json) {
  const auto json = [](const Bytes& bytes) { return json_of(decode_message(bytes), 1.5, 7); };
  EXPECT_EQ(json({11, 0, 3, 7, 2, 0, 0}),
            R"({"time":1.5,"number":7,"message":"version","version":"0.3.7","variant":2})");
  EXPECT_EQ(json({'{', '}'}), R"({"time":1.5,"number":7,"message":"json","content":{}})");
  EXPECT_EQ(json({'{', '"', 1}), R"({"time":1.5,"number":7,"message":"json","text":"{\"\u0001"})");
}

TEST(CtlMessages, Shutter) {
  EXPECT_EQ(shutter_text(0x000008), "8 s");
  EXPECT_EQ(shutter_text(0x030001), "1.3 s");
  EXPECT_EQ(shutter_text(0x0081F4), "1/500 s");
  EXPECT_EQ(shutter_text(0x0581F4), "1/500.5 s");
  EXPECT_EQ(shutter_text(0x000100), "code 256");
}

TEST(CtlFrames, Header) {
  const Bytes datagram{0x42, 1, 0, 0, 0x78, 0x56, 0x34, 0x12, 0xEF, 0xBE, 0, 0, 9, 8};
  const auto frame = decode_frame(datagram);
  ASSERT_TRUE(frame);
  EXPECT_TRUE(frame->video);
  EXPECT_EQ(frame->number, 0x12345678U);
  EXPECT_EQ(Bytes(frame->payload.begin(), frame->payload.end()), (Bytes{9, 8}));
  EXPECT_FALSE(decode_frame(Bytes(11, 0x42)));
  EXPECT_FALSE(decode_frame(Bytes(12, 0x41)));
  EXPECT_TRUE(decode_frame(Bytes(12, 0x42)));
  EXPECT_EQ(encode_frame(Bytes{5}), (Bytes{0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}));
}

struct Gaps {
  std::uint64_t gaps, missing, late, restarts;
  bool operator==(const Gaps&) const = default;
};

Gaps count(const std::vector<std::uint32_t>& numbers) {
  GapCounter counter;
  for (const std::uint32_t number : numbers) counter.take(number);
  return {counter.gaps(), counter.missing(), counter.late(), counter.restarts()};
}

TEST(CtlGaps, Counted) {
  EXPECT_EQ(count({}), (Gaps{0, 0, 0, 0}));
  EXPECT_EQ(count({77}), (Gaps{0, 0, 0, 0}));
  EXPECT_EQ(count({5, 6, 7}), (Gaps{0, 0, 0, 0}));
  EXPECT_EQ(count({5, 7, 10}), (Gaps{2, 3, 0, 0}));
  EXPECT_EQ(count({5, 5, 7, 8}), (Gaps{1, 1, 1, 0}));  // two sent at one moment
  EXPECT_EQ(count({5, 7, 6, 8}), (Gaps{1, 1, 1, 0}));  // one overtaken
  EXPECT_EQ(count({0xFFFFFFFE, 0xFFFFFFFF, 0, 1}), (Gaps{0, 0, 0, 0}));
  EXPECT_EQ(count({0xFFFFFFFE, 1}), (Gaps{1, 2, 0, 0}));
  EXPECT_EQ(count({1000, 1001, 0, 1, 2}), (Gaps{0, 0, 0, 1}));
  EXPECT_EQ(count({3, 4, 0, 1}), (Gaps{0, 0, 0, 1}));
  EXPECT_EQ(count({1000, 3, 4}), (Gaps{0, 0, 0, 1}));
}

TEST(CtlValues, Texts) {
  EXPECT_EQ(text_of(Value(true)), "yes");
  EXPECT_EQ(text_of(Value(0.57)), "0.57");
  EXPECT_EQ(text_of(Value(std::int64_t{4294967295})), "4294967295");
  EXPECT_EQ(text_of(Field{"colour_temperature", std::int64_t{5600}, " K"}),
            "colour temperature 5600 K");
  EXPECT_EQ(rounded(57 * 0.01), 0.57);
  EXPECT_EQ(rounded(1e300), 1e300);
}

TEST(CtlHud, EveryFieldOnce) {
  static DisplayRegion region;
  region.product_name.assign("Tervado");
  region.rc_channel_map[0] = 21;
  region.rc_channel_map[1] = 255;
  region.aperture = 280 * 0.01;
  const Fields fields = decode_region(region);
  const auto find = [&fields](std::string_view name) {
    std::string found;
    for (const Field& field : fields) {
      if (field.name == name) found += text_of(field.value) + "|";
    }
    return found;
  };
  std::set<std::string_view> names;
  for (const Field& field : fields) EXPECT_TRUE(names.insert(field.name).second) << field.name;
  EXPECT_EQ(find("product_name"), "Tervado|");
  EXPECT_EQ(find("aperture"), "2.8|");
  EXPECT_EQ(find("rc_channel_map").substr(0, 18), "orient-lock,-,pan,");
  EXPECT_EQ(find("command_waiting"), "no|");
}

}  // namespace
}  // namespace nimbus::ctl
