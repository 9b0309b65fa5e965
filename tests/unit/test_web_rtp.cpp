// Pictures as RTP packets, byte by byte, and what becomes of them when nobody takes them.
#include "tools/web/rtp.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "tests/unit/web_streams.h"
#include "tools/web/annex_b.h"
#include "tools/web/rtp_link.h"
#include "tools/web/sdp.h"

namespace nimbus::web {
namespace {

using Packets = std::vector<Buffer>;

constexpr rtp::Begin kBegin{.source = 0x0102'0304, .time = 0xFFFF'FFF0, .sequence = 0xFFFF};

rtp::Sink into(Packets& packets) {
  return [&packets](Bytes packet) {
    packets.emplace_back(packet.begin(), packet.end());
    return true;
  };
}

/// A unit of so many bytes: a key slice of highest importance, then 1, 2, 3...
Buffer unit_of_size(std::size_t size) {
  Buffer unit{0x65};
  while (unit.size() < size) unit.push_back(static_cast<std::uint8_t>(unit.size() % 255 + 1));
  return unit;
}

Packets packets_of(const Buffer& unit) {
  Buffer units;
  append_unit(units, unit);
  Packets packets;
  rtp::Packetizer packetizer(kBegin);
  EXPECT_TRUE(packetizer.send(units, 0, into(packets)));
  return packets;
}

TEST(Rtp, UnitsThatFitAreSentWhole) {
  const Buffer units{0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0xCE, 0, 0, 0, 1, 0x65, 0x88, 0x84};
  Packets packets;
  rtp::Packetizer packetizer(kBegin);
  // A second is 90 000 of the clock, which goes round behind the first 16.
  ASSERT_TRUE(packetizer.send(units, 1'000'000, into(packets)));
  const Packets expected{
      {0x80, 0x60, 0xFF, 0xFF, 0x00, 0x01, 0x5F, 0x80, 1, 2, 3, 4, 0x67, 0x42},
      {0x80, 0x60, 0x00, 0x00, 0x00, 0x01, 0x5F, 0x80, 1, 2, 3, 4, 0x68, 0xCE},
      {0x80, 0xE0, 0x00, 0x01, 0x00, 0x01, 0x5F, 0x80, 1, 2, 3, 4, 0x65, 0x88, 0x84}};
  EXPECT_EQ(packets, expected);
}

TEST(Rtp, LongestUnitInOnePacket) {
  const Buffer unit = unit_of_size(1188);
  const Packets packets = packets_of(unit);
  ASSERT_EQ(packets.size(), 1U);
  EXPECT_EQ(packets[0].size(), rtp::kLongest);
  EXPECT_TRUE(std::equal(unit.begin(), unit.end(), packets[0].begin() + rtp::kHeader));
}

TEST(Rtp, OneByteMoreMakesFragments) {
  const Packets packets = packets_of(unit_of_size(1189));
  ASSERT_EQ(packets.size(), 2U);
  const auto begins = [](const Buffer& packet, const Buffer& with) {
    return packet.size() >= with.size() && std::equal(with.begin(), with.end(), packet.begin());
  };
  EXPECT_EQ(packets[0].size(), rtp::kLongest);
  EXPECT_TRUE(begins(
      packets[0], {0x80, 0x60, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0, 1, 2, 3, 4, 0x7C, 0x85, 2, 3}));
  EXPECT_EQ(packets[1], (Buffer{0x80, 0xE0, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xF0, 1, 2, 3, 4, 0x7C,
                                0x45, 1187 % 255 + 1, 1188 % 255 + 1}));
}

TEST(Rtp, FragmentsBetweenTheOthersHaveNoMark) {
  const Buffer unit = unit_of_size(1 + 3 * 1186);
  const Packets packets = packets_of(unit);
  ASSERT_EQ(packets.size(), 3U);
  Buffer together{0x65};
  const std::array<std::uint8_t, 3> heads{0x85, 0x05, 0x45};
  for (std::size_t i = 0; i < packets.size(); ++i) {
    EXPECT_EQ(packets[i].size(), rtp::kLongest);
    EXPECT_EQ(packets[i][1], i == 2 ? 0xE0 : 0x60);
    EXPECT_EQ(packets[i][13], heads.at(i));
    append(together, Bytes(packets[i]).subspan(14));
  }
  EXPECT_EQ(together, unit);
}

TEST(Rtp, TimesDoNotDrift) {
  rtp::Packetizer packetizer({});
  const Buffer units{0, 0, 0, 1, 0x41, 0x9A};
  for (const std::uint64_t micros :
       {0ULL, 11ULL, 12ULL, 33'333ULL, 86'400'000'000ULL, 1'000'000'000'000'007ULL}) {
    Packets packets;
    ASSERT_TRUE(packetizer.send(units, micros, into(packets)));
    std::uint32_t time = 0;
    for (std::size_t i = 4; i < 8; ++i) time = time << 8U | packets.at(0).at(i);
    EXPECT_EQ(time, static_cast<std::uint32_t>(micros * 9 / 100));
  }
}

// --- The session's description -----------------------------------------------------------------

std::string described(const std::string& format) {
  return "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=Tervado Nimbus\r\nc=IN IP4 10.1.2.3\r\nt=0 0\r\n"
         "m=video 5004 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 " +
         format + "\r\na=recvonly\r\n";
}

TEST(Sdp, OfAStreamThatHasNotBegun) {
  EXPECT_EQ(session_description("10.1.2.3", 5004, {}), described("packetization-mode=1"));
}

TEST(Sdp, WithParameterSets) {
  const Buffer sets{0, 0,    0,    1, 0x67, 0x4D, 0xC0, 0x1E, 0,    0,   0,
                    1, 0x68, 0xCE, 0, 0,    0,    1,    0x68, 0xCE, 0x3C};
  EXPECT_EQ(session_description("10.1.2.3", 5004, sets),
            described("packetization-mode=1;profile-level-id=4DC01E;"
                      "sprop-parameter-sets=Z03AHg==,aM4=,aM48"));
}

TEST(Sdp, SetsThatNoLineHoldsAreLeftOut) {
  Buffer sets;
  append_unit(sets, Buffer(1020, 0x67));
  EXPECT_NE(session_description("10.1.2.3", 5004, sets), described("packetization-mode=1"));
  sets.push_back(1);
  EXPECT_EQ(session_description("10.1.2.3", 5004, sets), described("packetization-mode=1"));
}

// --- What is sent when -------------------------------------------------------------------------

/// The types of the units of each picture.
std::vector<std::vector<int>> types_of(const Packets& packets) {
  std::vector<std::vector<int>> pictures(1);
  for (const Buffer& packet : packets) {
    const int type = packet.at(12) & 0x1F;
    const bool begins = type != 28 || (packet.at(13) & 0x80) != 0;
    if (begins) pictures.back().push_back(type == 28 ? packet.at(13) & 0x1F : type);
    if ((packet.at(1) & 0x80) != 0) pictures.emplace_back();
  }
  pictures.pop_back();
  return pictures;
}

Buffer without_sets(const Buffer& picture) {
  Buffer rest;
  for (const Bytes unit : units_of(picture)) {
    const int type = unit[0] & 0x1F;
    if (type != 7 && type != 8) append_unit(rest, unit);
  }
  return rest;
}

/// Sends a picture that arrived at that time, in microseconds.
void show(RtpOutput& output, bool key, std::size_t size, std::uint64_t arrival = 0) {
  auto picture = std::make_shared<Picture>();
  picture->key = key;
  picture->arrival = arrival;
  append_unit(picture->units, unit_of_size(size));
  output.on_picture(picture);
}

void begin(RtpOutput& output, Kind kind, const Buffer& sets = {}) {
  auto epoch = std::make_shared<Epoch>();
  epoch->kind = kind;
  epoch->parameter_sets = sets;
  output.on_epoch(epoch);
}

TEST(RtpOutput, OnlyH264) {
  Packets packets;
  RtpOutput output({}, into(packets), nullptr);
  testing::internal::CaptureStderr();
  begin(output, Kind::h265);
  begin(output, Kind::h265);  // of another size: nothing new
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "nimbus-web: the video is h265, which is not sent as RTP; expected h264\n");
  show(output, true, 10);
  EXPECT_TRUE(packets.empty());
  begin(output, Kind::h264);
  show(output, true, 10);
  EXPECT_EQ(packets.size(), 1U);
  EXPECT_EQ(output.sent(), 1U);
  EXPECT_EQ(output.dropped(), 0U);
}

TEST(RtpOutput, DropsUpToTheNextKeyPicture) {
  std::size_t asked = 0;
  RtpOutput output(
      {}, [&asked](Bytes) { return ++asked != 2; }, nullptr);
  begin(output, Kind::h264);
  show(output, true, 5000);  // five packets: the second is refused, and the rest not tried
  EXPECT_EQ(asked, 2U);
  show(output, false, 10);
  EXPECT_EQ(asked, 2U);
  EXPECT_EQ(output.dropped(), 2U);
  show(output, true, 10);
  show(output, false, 10);
  EXPECT_EQ(asked, 4U);
  EXPECT_EQ(output.dropped(), 2U);
}

TEST(RtpOutput, TellsOfParameterSetsSeldom) {
  constexpr std::uint64_t kSecond = 1'000'000;
  Packets packets;
  Packets told;
  RtpOutput output({}, into(packets),
                   [&told](Bytes sets) { told.emplace_back(sets.begin(), sets.end()); });
  const std::array<Buffer, 3> sets{{{0, 0, 0, 1, 0x67, 1}, {0, 0, 0, 1, 0x67, 2}, {1}}};
  begin(output, Kind::h264, sets[0]);
  show(output, false, 10, 5 * kSecond);
  EXPECT_TRUE(told.empty());
  for (const std::uint64_t second : {5U, 6U, 20U}) show(output, true, 10, second * kSecond);
  EXPECT_EQ(told, (Packets{sets[0]}));
  begin(output, Kind::h264, sets[1]);
  show(output, true, 10, 21 * kSecond);
  EXPECT_EQ(told, (Packets{sets[0], sets[1]}));
  begin(output, Kind::h264, sets[0]);
  show(output, true, 10, 31 * kSecond - 1);  // too soon, and not forgotten
  EXPECT_EQ(told.size(), 2U);
  show(output, true, 10, 31 * kSecond);
  EXPECT_EQ(told, (Packets{sets[0], sets[1], sets[0]}));
  begin(output, Kind::h265, sets[2]);
  show(output, true, 10, 60 * kSecond);
  EXPECT_EQ(told.size(), 3U);
}

/// A card that takes its time is a pipe that nobody reads yet.
TEST(RtpLink, PicturesDoNotWaitForTheFile) {
  const std::string path = testing::TempDir() + "camera.sdp";
  RtpLink link("127.0.0.1", 9, path);
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::promise<void> shown;
  std::string told;
  std::thread card([&] {
    EXPECT_EQ(shown.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready)
        << "the picture has waited for the file";
    std::ifstream file(path);
    std::getline(file, told, '\0');
  });
  begin(link.output(), Kind::h264, {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E});
  show(link.output(), true, 10);
  shown.set_value();
  card.join();
  EXPECT_NE(told.find(";profile-level-id=42C01E;"), std::string::npos) << told;
  std::filesystem::remove(path);
}

/// Whoever has written a file ends soon; a sanitizer may have a thread of its own, which stays.
void wait_for_threads() {
  const auto others = [] {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks)) - 1;
  };
  for (int i = 0; i < 200 && others() > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

/// One description after the other, each when the one before it is written.
TEST(RtpLink, TheFileFollowsTheStream) {
  constexpr std::uint64_t kLater = 20'000'000;
  const std::string path = testing::TempDir() + "another.sdp";
  RtpLink link("127.0.0.1", 9, path);
  const auto tells = [&path](const std::string& profile) {
    for (int i = 0; i < 10'000; ++i) {
      std::ifstream file(path);
      const std::string text{std::istreambuf_iterator<char>(file), {}};
      if (text.find(";profile-level-id=" + profile) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  };
  begin(link.output(), Kind::h264, {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E});
  show(link.output(), true, 10);
  ASSERT_TRUE(tells("42C01E"));
  wait_for_threads();
  begin(link.output(), Kind::h264, {0, 0, 0, 1, 0x67, 0x4D, 0x40, 0x28});
  show(link.output(), true, 10, kLater);
  EXPECT_TRUE(tells("4D4028"));
  std::filesystem::remove(path);
}

TEST(RtpOutput, ParameterSetsBeforeEachKeyPicture) {
  Packets packets;
  RtpOutput output({}, into(packets), nullptr);
  Stream stream(output, Ends::seen);
  Time now = Time{} + std::chrono::seconds(100);
  const auto pictures = access_units(recorded("zerolatency.h264"), Coding::h264);
  std::uint32_t number = 0;
  // The camera says them once, and then never again.
  for (; number < 3 * pictures.size(); now += std::chrono::milliseconds(40)) {
    const Buffer& picture = pictures[number % pictures.size()];
    stream.video(number < pictures.size() ? picture : without_sets(picture), number, now);
    ++number;
  }
  const auto seen = types_of(packets);
  EXPECT_EQ(seen.size(), number - 1);  // the end of the last is not seen
  int keys = 0;
  for (const auto& types : seen) {
    if (std::ranges::find(types, 5) == types.end()) continue;
    ++keys;
    EXPECT_EQ(types.at(0), 7);
    EXPECT_EQ(types.at(1), 8);
  }
  EXPECT_GE(keys, 3);
}

}  // namespace
}  // namespace nimbus::web
