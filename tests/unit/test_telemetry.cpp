#include "control/telemetry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/wire.h"
#include "camera/duml.h"
#include "display/region.h"
#include "tests/unit/support.h"
#include "tests/unit/wall_clock.h"

namespace nimbus {
namespace {

using test::Texts;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kFlag17 = 17;
constexpr std::size_t kTracking = 36;
constexpr std::size_t kRecording = 53;
constexpr std::size_t kHistogram = 77;

/// The lengths of all reports.
constexpr std::array<std::size_t, 9> kReportLengths{17, 30, 36, 53, 57, 58, 62, 77, 107};

/// The command sets that make a difference.
constexpr std::array<std::uint8_t, 2> kReportSets{4, 5};

/// Gives a frame the check that it should have.
Bytes seal(Bytes frame) {
  const std::size_t checked = frame.size() - 2;
  store_le(frame, checked, duml_crc16(std::span(frame).first(checked)));
  return frame;
}

/// A sound frame of zeros.
Bytes frame_of(std::size_t length, std::uint8_t command_set = 4) {
  Bytes frame(length);
  frame[0] = kDumlStart;
  frame[1] = static_cast<std::uint8_t>(length);
  frame[9] = command_set;
  return seal(frame);
}

/// Scans a datagram that lies alone in memory of its very size, so that a sanitizer sees every read
/// outside.
void scan(const Bytes& datagram) {
  const auto alone = std::make_unique<std::uint8_t[]>(datagram.size());
  std::copy(datagram.begin(), datagram.end(), alone.get());
  scan_camera_datagram({alone.get(), datagram.size()});
}

/// Scans one frame with a byte behind it.
void report(Bytes frame) {
  frame.push_back(0);
  scan(frame);
}

// --- Before the start --------------------------------------------------------------------------

TEST(TelemetryDeathTest, DoesNothingBeforeTheDisplayRegionIsMapped) {
  if (display_region() != nullptr) GTEST_SKIP() << "mapped by an earlier run of the tests";
  for (const std::size_t length : kReportLengths) {
    for (const std::uint8_t command_set : kReportSets) {
      SCOPED_TRACE(length);
      EXPECT_EXIT(
          {
            report(frame_of(length, command_set));
            std::_Exit(EXIT_SUCCESS);
          },
          testing::ExitedWithCode(EXIT_SUCCESS), "");
    }
  }
}

/// The region as it is when it was created.
class Telemetry : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_NE(display_region() == nullptr ? map_display_region() : display_region(), nullptr);
  }

  Telemetry() : region(*display_region()) {
    test::set_bytes(region, std::string(sizeof(DisplayRegion), '\0'));
  }

  DisplayRegion& region;
};

// --- No byte outside the datagram --------------------------------------------------------------

TEST_F(Telemetry, TakesAnEmptyDatagram) {
  scan_camera_datagram({});
  EXPECT_EQ(test::bytes_of(region), std::string(sizeof(DisplayRegion), '\0'));
}

TEST_F(Telemetry, ReadsNothingBehindAnyStart) {
  for (unsigned length = 0; length < 256; ++length) {
    for (std::size_t size = 1; size <= 260; ++size) {
      Bytes datagram(size);
      datagram[0] = kDumlStart;
      if (size > 1) datagram[1] = static_cast<std::uint8_t>(length);
      scan(datagram);
    }
  }
}

TEST_F(Telemetry, ReadsNothingBehindAStartAtTheEnd) {
  for (unsigned length = 0; length < 256; ++length) {
    for (const std::size_t behind : {0U, 1U, 2U, 9U, 10U, 11U}) {
      Bytes datagram = frame_of(kFlag17);
      datagram.push_back(kDumlStart);
      datagram.push_back(static_cast<std::uint8_t>(length));
      datagram.resize(datagram.size() + behind);
      scan(datagram);
      datagram.back() = kDumlStart;
      scan(datagram);
    }
  }
}

TEST_F(Telemetry, ReadsNothingBehindACutReport) {
  for (const std::size_t length : kReportLengths) {
    Bytes datagram = frame_of(length);
    while (!datagram.empty()) {
      scan(datagram);
      datagram.pop_back();
    }
  }
}

TEST_F(Telemetry, DecodersReadNothingBehindTheirFrame) {
  for (const std::size_t length : kReportLengths) {
    for (const std::uint8_t command_set : kReportSets) {
      const Bytes frame = frame_of(length, command_set);
      const auto alone = std::make_unique<std::uint8_t[]>(frame.size());
      std::copy(frame.begin(), frame.end(), alone.get());
      decode_camera_frame({alone.get(), frame.size()});
    }
  }
}

TEST_F(Telemetry, IgnoresFramesThatAreTooShortForAHeader) {
  for (std::size_t length = 0; length < kFlag17; ++length) {
    const Bytes frame(length);
    decode_camera_frame(frame);
  }
  EXPECT_EQ(test::bytes_of(region), std::string(sizeof(DisplayRegion), '\0'));
}

// --- Lost tracking, to the millisecond ---------------------------------------------------------

Bytes tracking(bool on, float x = 0, float y = 0) {
  Bytes frame = frame_of(kTracking);
  frame[16] = frame[17] = on ? 1 : 0;
  store_le(frame, 18, std::bit_cast<std::uint32_t>(x));
  store_le(frame, 22, std::bit_cast<std::uint32_t>(y));
  return seal(frame);
}

/// Clock readings at which a subject is seen; around them the clock wraps and passes 2^31.
class TelemetryRestore : public Telemetry, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(TelemetryRestore, WaitsTwoSeconds) {
  test::WallClock clock;
  test::Console console;
  const std::uint32_t seen = GetParam();
  clock.set_ms(seen);
  report(tracking(true, 0.5F, 0.25F));
  EXPECT_EQ(console.texts(), Texts());
  EXPECT_EQ(region.tracking_ms, seen);
  for (const std::uint32_t waited : {0U, 1U, 1999U, 2000U}) {
    clock.set_ms(seen + waited);
    report(tracking(false));
    EXPECT_EQ(console.texts(),
              Texts{"Waiting restore tracking " + std::to_string(waited) + "...\n"});
    EXPECT_EQ(region.tracking_ms, seen + waited);
  }
  for (const std::uint32_t waited : {2001U, 2002U, 100'000U, 2'000'000'000U}) {
    clock.set_ms(seen + waited);
    report(tracking(false));
    EXPECT_EQ(
        console.texts(),
        (Texts{"Waiting restore tracking " + std::to_string(waited) + "...\n",
               "Restore tracking...\n", "Stop tracking\n", "Start tracking 0.5 0.2 0.1 0.2\n"}));
  }
}

INSTANTIATE_TEST_SUITE_P(Clock, TelemetryRestore,
                         testing::Values(1'000'000U, 0x7FFF'FC00U, 0xFFFF'FC00U, 0xFFFF'FFFFU, 0U));

// --- The recording timer, to the millisecond ---------------------------------------------------

Bytes recording(std::uint8_t state, std::uint8_t reset = 0) {
  Bytes frame = frame_of(kRecording, 5);
  frame[11] = state;
  frame[50] = reset;
  return seal(frame);
}

struct Timer {
  std::uint8_t state;
  std::uint32_t start;
  std::uint32_t elapsed;
  bool operator==(const Timer&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Timer& timer) {
  return out << +timer.state << ' ' << timer.start << ' ' << timer.elapsed;
}

Timer timer_of(const DisplayRegion& region) {
  return {region.timer_state, region.timer_start_ms, region.timer_elapsed_ms};
}

TEST_F(Telemetry, TimesEveryStateButTheFirst) {
  test::WallClock clock;
  const auto at = [&](std::uint32_t now, std::uint8_t state) {
    clock.set_ms(now);
    report(recording(state));
    return timer_of(region);
  };
  EXPECT_EQ(at(1000, 1), (Timer{1, 0, 0}));
  EXPECT_EQ(at(2000, 1), (Timer{1, 0, 0}));
  EXPECT_EQ(at(3000, 2), (Timer{2, 3000, 0}));
  EXPECT_EQ(at(3500, 2), (Timer{2, 3000, 0}));
  EXPECT_EQ(at(4234, 3), (Timer{3, 4234, 3 * 1234}));
  EXPECT_EQ(at(9999, 3), (Timer{3, 4234, 3 * 1234}));
  EXPECT_EQ(at(10'234, 1), (Timer{1, 10'234, 6000}));
  EXPECT_EQ(at(10'234, 2), (Timer{2, 10'234, 0}));
  EXPECT_EQ(at(20'234, 0), (Timer{0, 20'234, 0}));
  EXPECT_EQ(at(20'334, 5), (Timer{5, 20'234, 0}));
  EXPECT_EQ(at(20'434, 6), (Timer{6, 20'434, 6 * 200}));
}

TEST_F(Telemetry, TimesAcrossTheClocksWrap) {
  test::WallClock clock;
  for (const std::uint32_t start : {0xFFFF'FF00U, 0x7FFF'FF00U}) {
    region.timer_state = 1;
    region.timer_start_ms = start;
    clock.set_ms(start + 0x200);
    report(recording(7));
    EXPECT_EQ(timer_of(region), (Timer{7, start + 0x200, 7 * 0x200}));
  }
}

TEST_F(Telemetry, KeepsTheLow32BitsOfAnElapsedTime) {
  test::WallClock clock;
  region.timer_state = 1;
  region.timer_start_ms = 1;
  clock.set_ms(0x1000'0001);
  report(recording(0x12));
  EXPECT_EQ(timer_of(region), (Timer{0x12, 0x1000'0001, 0x2000'0000}));
}

// --- Time stamps -------------------------------------------------------------------------------

TEST_F(Telemetry, StampsTheHistogram) {
  test::WallClock clock;
  clock.set_ms(0xFEDC'BA98);
  report(frame_of(kHistogram));
  EXPECT_EQ(region.histogram_ms, 0xFEDC'BA98);
  EXPECT_EQ(region.tracking_ms, 0U);
}

}  // namespace
}  // namespace nimbus
