#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/wire.h"
#include "camera/duml.h"
#include "tools/sim/camera_model.h"
#include "tools/sim/commands.h"
#include "tools/sim/frame.h"
#include "tools/sim/reports.h"

namespace nimbus::sim {
namespace {

using Payload = std::vector<std::uint8_t>;

constexpr std::uint8_t kCamera = 2;
constexpr std::uint8_t kGimbal = 4;

/// A sound frame as the service makes them.
Payload frame_of(std::uint8_t set, std::uint8_t id, const Payload& payload) {
  Payload frame{kDumlStart, static_cast<std::uint8_t>(payload.size() + kDumlOverhead), 0x04};
  frame.push_back(duml_crc8(frame));
  frame.insert(frame.end(), {0x02, set == kCamera ? std::uint8_t{1} : std::uint8_t{4}, 0x34, 0x12,
                             0x40, set, id});
  frame.insert(frame.end(), payload.begin(), payload.end());
  const std::uint16_t crc = duml_crc16(frame);
  frame.insert(frame.end(), {static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)});
  return frame;
}

void append_real(Payload& payload, float value) {
  payload.resize(payload.size() + 4);
  store_le(std::span(payload), payload.size() - 4, std::bit_cast<std::uint32_t>(value));
}

Payload speed(int pan, int tilt, int roll) {
  Payload payload(7);
  store_le(std::span(payload), 0, static_cast<std::int16_t>(pan));
  store_le(std::span(payload), 2, static_cast<std::int16_t>(roll));
  store_le(std::span(payload), 4, static_cast<std::int16_t>(tilt));
  payload[6] = 0x90;
  return payload;
}

Payload tracking(float x, float y, float width, float height) {
  Payload payload{1, 0, 0, 0x0E, 0};
  for (const float value : {x, y, width, height}) append_real(payload, value);
  return payload;
}

class Camera : public testing::Test {
 protected:
  /// Gives the camera a command; returns why it ignores it.
  std::string give(std::uint8_t set, std::uint8_t id, const Payload& payload) {
    const Payload bytes = frame_of(set, id, payload);
    const auto checked = check_frame(bytes);
    EXPECT_TRUE(std::holds_alternative<Frame>(checked));
    const Frame& frame = std::get<Frame>(checked);
    const CameraCommand* const command = find_command(frame);
    if (command == nullptr) return "unknown";
    said = describe(*command, frame.payload);
    return std::string(camera.apply(*command, frame.payload));
  }

  void pass(double seconds) {
    for (double done = 0; done < seconds - 1e-9; done += 0.01) camera.tick(0.01);
  }

  Payload report(std::string_view name) {
    const auto kind = std::find_if(reports().begin(), reports().end(),
                                   [name](const Report& row) { return row.name == name; });
    EXPECT_NE(kind, reports().end()) << name;
    return encoder.encode(*kind, camera);
  }

  CameraModel camera;
  ReportEncoder encoder;
  std::string said;
};

// --- Frames ------------------------------------------------------------------------------------

TEST(Frames, DamageIsSeen) {
  const Payload sound = frame_of(kCamera, 0x2A, {5});
  ASSERT_TRUE(std::holds_alternative<Frame>(check_frame(sound)));
  EXPECT_EQ(std::get<Frame>(check_frame(sound)).sequence, 0x1234);
  for (std::size_t bit = 0; bit < sound.size() * 8; ++bit) {
    Payload damaged = sound;
    damaged[bit / 8] = static_cast<std::uint8_t>(damaged[bit / 8] ^ 1U << bit % 8);
    EXPECT_TRUE(std::holds_alternative<std::string>(check_frame(damaged))) << bit;
  }
  for (std::size_t size = 0; size < sound.size(); ++size) {
    EXPECT_TRUE(std::holds_alternative<std::string>(check_frame(Bytes(sound).first(size)))) << size;
  }
}

TEST_F(Camera, UnknownCommandsAreNone) {
  EXPECT_EQ(give(kCamera, 0x99, {0}), "unknown");
  EXPECT_EQ(give(kCamera, 0x2A, {0, 0}), "unknown");
  EXPECT_EQ(give(kGimbal, 0x2A, {0}), "unknown");
  EXPECT_EQ(give(kGimbal, 0x50, {0, 6, 1, 0}), "unknown");
}

struct CommandInWords {
  std::uint8_t set;
  std::uint8_t id;
  Payload payload;
  const char* words;
};

Payload point(float x, float y) {
  Payload payload;
  append_real(payload, x);
  append_real(payload, y);
  return payload;
}

std::vector<CommandInWords> commands_in_words() {
  return {
      {kGimbal, 0x0C, speed(-1000, 500, 1), "gimbal speed: pan -1.000, tilt 0.500, roll 0.001"},
      {kGimbal, 0x4C, {0xFE, 0x08}, "gimbal position: centre"},
      {kGimbal, 0x4C, {0xFE, 0x09}, "gimbal position: next"},
      {kGimbal, 0x4C, {0x01, 0x00}, "gimbal mode: fpv"},
      {kGimbal, 0x50, {0, 4, 1, 1}, "gimbal tilt lock: on"},
      {kGimbal, 0x50, {0, 5, 1, 2}, "gimbal follow: slow"},
      {kGimbal, 0x07, {0}, "gimbal calibration: step 1"},
      {kCamera, 0x01, {1}, "shot"},
      {kCamera, 0x02, {1}, "record: start"},
      {kCamera, 0x10, {0}, "camera mode: photo"},
      {kCamera, 0x12, {0, 1}, "aspect ratio: 16:9"},
      {kCamera, 0x16, {2}, "photo format: JPG+RAW"},
      {kCamera, 0x18, {10, 6, 0, 0, 0}, "video format: 1920x1080, 60 frames/s"},
      {kCamera, 0xAF, {0, 3}, "video format: unknown code 0, 30 frames/s"},
      {kCamera, 0x1E, {2, 0}, "exposure mode: S"},
      {kCamera, 0x26, {0x18, 0x01}, "aperture: f/2.80"},
      {kCamera, 0x28, {1, 6, 0x80, 25}, "shutter: 1/6.25 s"},
      {kCamera, 0x28, {1, 30, 0, 0}, "shutter: 30 s"},
      {kCamera, 0x28, {1, 0, 0, 0}, "shutter: unknown code 00 00 00"},
      {kCamera, 0x2A, {0}, "ISO: auto"},
      {kCamera, 0x2A, {6}, "ISO: 800"},
      {kCamera, 0x2A, {99}, "ISO: unknown code 99"},
      {kCamera, 0x2C, {6, 56}, "white balance: custom, 5600 K"},
      {kCamera, 0x2E, {18}, "EV: +0.7"},
      {kCamera, 0x30, point(0.25F, 0.75F), "focus point: x 0.2500, y 0.7500"},
      {kCamera, 0x42, {23}, "colour: d-log"},
      {kCamera, 0xA6, Payload(21), "tracking: stop"},
      {kCamera, 0xA6, tracking(0.5F, 0.25F, 0.125F, 1),
       "tracking: start at x 0.5000, y 0.2500, width 0.1250, height 1.0000"},
  };
}

TEST_F(Camera, CommandsInWords) {
  for (const auto& [set, id, payload, words] : commands_in_words()) {
    give(set, id, payload);
    EXPECT_EQ(said, words);
  }
}

// --- Gimbal ------------------------------------------------------------------------------------

TEST_F(Camera, SpeedsTurnTheGimbalWhileTheyHold) {
  give(kGimbal, 0x0C, speed(1000, -500, 100));
  pass(0.1);
  EXPECT_NEAR(camera.gimbal().angles().pan, 10, 0.01);
  EXPECT_NEAR(camera.gimbal().angles().tilt, -5, 0.01);
  EXPECT_NEAR(camera.gimbal().angles().roll, 1, 0.01);
  pass(5);
  EXPECT_NEAR(camera.gimbal().angles().pan, 100 * Gimbal::kSpeedHolds, 0.01);
}

TEST_F(Camera, AStepLongerThanASpeedHoldsIsNone) {
  give(kGimbal, 0x0C, speed(1000, 0, 0));
  camera.tick(10);
  EXPECT_NEAR(camera.gimbal().angles().pan, 100 * Gimbal::kSpeedHolds, 0.01);
}

TEST_F(Camera, NoAxisTurnsBeyondItsLimits) {
  for (const int way : {1, -1}) {
    for (int n = 0; n < 100; ++n) {
      give(kGimbal, 0x0C, speed(way * 5000, way * 5000, way * 5000));
      pass(0.1);
    }
    EXPECT_EQ(camera.gimbal().angles(), way > 0 ? Gimbal::kHighest : Gimbal::kLowest);
  }
}

TEST_F(Camera, SingleUnitsTurnNothing) {
  give(kGimbal, 0x4C, {0xFE, 0x09});
  for (int n = 0; n < 100; ++n) {
    give(kGimbal, 0x0C, speed(1, 0, 0));
    pass(0.03);
  }
  EXPECT_EQ(camera.gimbal().angles(), Axes{.pan = -180});
}

TEST_F(Camera, PositionsToTheBackAndToTheFront) {
  give(kGimbal, 0x4C, {0xFE, 0x09});
  pass(0.5);
  EXPECT_LT(camera.gimbal().angles().pan, -30);
  EXPECT_GT(camera.gimbal().angles().pan, -90);
  pass(2);
  EXPECT_EQ(camera.gimbal().angles(), Axes{.pan = -180});
  give(kGimbal, 0x4C, {0xFE, 0x09});
  pass(2);
  EXPECT_EQ(camera.gimbal().angles(), Axes{});
  give(kGimbal, 0x0C, speed(1000, 1000, 1000));
  pass(0.2);
  give(kGimbal, 0x4C, {0xFE, 0x08});
  pass(2);
  EXPECT_EQ(camera.gimbal().angles(), Axes{});
}

TEST_F(Camera, ASpeedEndsTheWayToAPosition) {
  give(kGimbal, 0x4C, {0xFE, 0x09});
  pass(0.5);
  const double pan = camera.gimbal().angles().pan;
  give(kGimbal, 0x0C, speed(0, 100, 0));
  pass(3);
  EXPECT_EQ(camera.gimbal().angles().pan, pan);
}

TEST_F(Camera, GimbalReport) {
  give(kGimbal, 0x4C, {0xFE, 0x09});
  pass(3);
  give(kGimbal, 0x0C, speed(0, -1000, 500));
  pass(0.1);
  for (const char* const name : {"gimbal", "gimbal, long"}) {
    const Payload frame = report(name);
    EXPECT_EQ(load_le<std::int16_t>(frame, 11), -100);
    EXPECT_EQ(load_le<std::int16_t>(frame, 13), 50);
    EXPECT_EQ(load_le<std::int16_t>(frame, 19), -1800);
    EXPECT_EQ(frame[34], 0);
  }
}

TEST_F(Camera, CalibrationHoldsTheGimbal) {
  give(kGimbal, 0x07, {0});
  EXPECT_EQ(report("gimbal")[34], 1);
  give(kGimbal, 0x0C, speed(1000, 0, 0));
  pass(0.2);
  EXPECT_EQ(camera.gimbal().angles(), Axes{});
  pass(CameraModel::kCalibrates);
  EXPECT_EQ(report("gimbal")[34], 0);
}

// --- Settings ----------------------------------------------------------------------------------

TEST_F(Camera, SettingsComeBackInTheNextReport) {
  struct Row {
    std::uint8_t id;
    Payload payload;
    std::size_t offset;
    Payload expected;
  };
  for (const auto& [id, payload, offset, expected] : {
           Row{0x2A, {7}, 16, {7}},
           Row{0x2E, {9}, 17, {9}},
           Row{0x68, {1}, 21, {1}},
           Row{0x16, {2}, 23, {2}},
           Row{0x18, {16, 6, 0, 0, 0}, 24, {16, 6}},
           Row{0xAF, {22, 1}, 24, {22, 1}},
           Row{0x1E, {4, 0}, 31, {4}},
           Row{0x2C, {6, 32}, 34, {6, 32}},
           Row{0x42, {52}, 42, {52}},
           Row{0x46, {2}, 43, {2}},
           Row{0x26, {0x90, 0x01}, 49, {0x90, 0x01}},
           Row{0x28, {1, 1, 0x80, 67}, 51, {1, 0x80, 67}},
           Row{0x12, {0, 0}, 67, {0}},
       }) {
    EXPECT_EQ(give(kCamera, id, payload), "");
    const Payload frame = report("settings");
    EXPECT_EQ(Payload(&frame[offset], &frame[offset] + expected.size()), expected) << int{id};
  }
  const Payload changed = report("settings");
  EXPECT_EQ(give(kCamera, 0x78, {0}), "");
  const Payload reset = report("settings");
  const CameraModel fresh;
  EXPECT_NE(Payload(&changed[11], &changed[105]), Payload(&reset[11], &reset[105]));
  CameraModel other;
  const auto kind = std::find_if(reports().begin(), reports().end(),
                                 [](const Report& row) { return row.name == "settings"; });
  const Payload untouched = ReportEncoder().encode(*kind, other);
  EXPECT_EQ(Payload(&untouched[11], &untouched[105]), Payload(&reset[11], &reset[105]));
}

TEST_F(Camera, CodesThatItDoesNotKnowChangeNothing) {
  const Payload before = report("settings");
  for (const auto& [id, payload] : std::vector<std::pair<std::uint8_t, Payload>>{
           {0x2A, {10}},
           {0x2E, {0}},
           {0x16, {3}},
           {0x18, {0, 6, 0, 0, 0}},
           {0x18, {16, 0, 0, 0, 0}},
           {0x1E, {0, 0}},
           {0x2C, {7, 32}},
           {0x42, {2}},
           {0x46, {3}},
           {0x26, {0, 0}},
           {0x26, {0xFF, 0xFF}},
           {0x28, {1, 0, 0, 0}},
           {0x12, {0, 2}},
           {0x10, {2}},
       }) {
    EXPECT_NE(give(kCamera, id, payload), "") << int{id};
  }
  const Payload after = report("settings");
  EXPECT_EQ(Payload(&before[11], &before[105]), Payload(&after[11], &after[105]));
}

// --- Recordings and photos ---------------------------------------------------------------------

TEST_F(Camera, ARecordingStartsItsTimerAnew) {
  EXPECT_EQ(report("recording timer")[11], RecordingTimer::kRest);
  EXPECT_EQ(give(kCamera, 0x02, {1}), "");
  const Payload reset = report("recording timer");
  EXPECT_EQ(reset[50], 1);
  const Payload rest = report("recording timer, long");
  EXPECT_EQ(rest[50], 0);
  EXPECT_EQ(rest[11], RecordingTimer::kRest);
  const Payload runs = report("recording timer");
  EXPECT_EQ(runs[50], 0);
  EXPECT_EQ(runs[11], RecordingTimer::kRuns);
  pass(2.5);
  EXPECT_EQ(load_le<std::uint16_t>(report("status"), 40), 2);
  EXPECT_EQ(report("status")[11], 2);
  EXPECT_EQ(give(kCamera, 0x02, {1}), "it records already");
  EXPECT_EQ(give(kCamera, 0x02, {0}), "");
  EXPECT_EQ(report("recording timer")[11], RecordingTimer::kRest);
  EXPECT_EQ(report("status")[11], 0);
  EXPECT_EQ(camera.seconds_left(), CameraModel::kCardSeconds - 3);
}

TEST_F(Camera, PhotosAreCountedAndShownForAMoment) {
  EXPECT_EQ(give(kCamera, 0x01, {1}), "the camera is not in photo mode");
  EXPECT_EQ(give(kCamera, 0x10, {0}), "");
  EXPECT_EQ(report("status")[15], 0);
  EXPECT_EQ(give(kCamera, 0x01, {1}), "");
  EXPECT_EQ(report("status")[11], 1);
  EXPECT_EQ(load_le<std::uint32_t>(report("status"), 24), CameraModel::kCardPhotos - 1);
  pass(CameraModel::kShotShows);
  EXPECT_EQ(report("status")[11], 0);
  EXPECT_EQ(give(kCamera, 0x02, {1}), "the camera is not in video mode");
}

TEST_F(Camera, LeavingVideoModeEndsTheRecording) {
  give(kCamera, 0x02, {1});
  give(kCamera, 0x10, {0});
  EXPECT_FALSE(camera.recording());
}

TEST_F(Camera, FormattingEmptiesTheCard) {
  give(kCamera, 0x10, {0});
  give(kCamera, 0x01, {1});
  give(kCamera, 0x72, {});
  EXPECT_NE(report("board")[24], 0);
  EXPECT_EQ(give(kCamera, 0x01, {1}), "the card is being formatted");
  pass(CameraModel::kFormats);
  EXPECT_EQ(report("board")[24], 0);
  EXPECT_EQ(camera.photos_left(), CameraModel::kCardPhotos);
}

// --- Focus, tracking, histogram ----------------------------------------------------------------

TEST_F(Camera, FocusPoint) {
  give(kCamera, 0x24, {1});
  Payload point;
  append_real(point, 0.25F);
  append_real(point, 0.75F);
  give(kCamera, 0x30, point);
  const Payload frame = report("lens");
  EXPECT_EQ(frame[11], 0x85);
  EXPECT_EQ(load_le<float>(frame, 24), 0.25F);
  EXPECT_EQ(load_le<float>(frame, 28), 0.75F);
  EXPECT_EQ(frame[32], 1);
  pass(CameraModel::kFocuses);
  EXPECT_EQ(report("lens")[32], 0);
}

TEST_F(Camera, TrackingFollowsItsSubjectUntilItIsStopped) {
  EXPECT_FALSE(camera.tracking());
  EXPECT_EQ(give(kCamera, 0xA6, tracking(0.5F, 0.02F, 0.1F, 0.2F)), "");
  for (int n = 0; n < 100; ++n) {
    pass(0.1);
    const Payload frame = report("tracking");
    EXPECT_EQ(frame[16], 1);
    EXPECT_EQ(frame[17], 1);
    EXPECT_NEAR(camera.subject().x, 0.5, 0.051);
    EXPECT_GE(camera.subject().y, 0);
    EXPECT_EQ(camera.subject().width, 0.1F);
  }
  give(kCamera, 0xA6, Payload(21));
  EXPECT_FALSE(camera.tracking());
}

TEST_F(Camera, TrackingOutsideThePictureIsRefused) {
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  for (const float wrong : {-0.1F, 1.1F, kNan}) {
    EXPECT_NE(give(kCamera, 0xA6, tracking(0.5F, wrong, 0.1F, 0.1F)), "");
    EXPECT_FALSE(camera.tracking());
  }
}

TEST_F(Camera, ASubjectIsLostAndFoundAgain) {
  camera = CameraModel(1.0);
  give(kCamera, 0xA6, tracking(0.5F, 0.5F, 0.1F, 0.1F));
  pass(0.9);
  EXPECT_TRUE(camera.sees_subject());
  pass(0.2);
  EXPECT_FALSE(camera.sees_subject());
  EXPECT_TRUE(camera.tracking());
  EXPECT_EQ(report("tracking")[16], 0);
  give(kCamera, 0xA6, tracking(0.5F, 0.5F, 0.1F, 0.1F));
  EXPECT_TRUE(camera.sees_subject());
}

TEST_F(Camera, HistogramByRequest) {
  const auto kind = std::find_if(reports().begin(), reports().end(),
                                 [](const Report& row) { return row.name == "histogram"; });
  ASSERT_NE(kind, reports().end());
  EXPECT_TRUE(kind->due(camera));
  const auto peak = [this] {
    const Payload frame = report("histogram");
    return std::max_element(&frame[11], &frame[75]) - &frame[11];
  };
  const auto middle = peak();
  EXPECT_NEAR(static_cast<double>(middle), 32, 2);
  give(kCamera, 0x2E, {25});
  EXPECT_GT(peak(), middle + 10);
  give(kCamera, 0x60, {0});
  EXPECT_FALSE(kind->due(camera));
}

// --- Reports -----------------------------------------------------------------------------------

TEST_F(Camera, EveryReportIsASoundFrame) {
  std::uint16_t number = 0;
  for (const Report& kind : reports()) {
    const Payload bytes = encoder.encode(kind, camera);
    EXPECT_EQ(bytes.size(), kind.length);
    const auto checked = check_frame(bytes);
    ASSERT_TRUE(std::holds_alternative<Frame>(checked)) << kind.name;
    EXPECT_EQ(std::get<Frame>(checked).set, kind.set);
    EXPECT_EQ(std::get<Frame>(checked).sequence, number++);
  }
}

TEST(Reports, TenViewersCanBeSentAllOfThem) {
  // Messages that each kind becomes; each takes the service a millisecond a viewer.
  double messages = 0;
  for (const Report& kind : reports()) {
    const bool silent = kind.length == 17 || kind.length == 30;
    const bool threefold = kind.name.starts_with("gimbal") || kind.name == "lens";
    messages += (silent ? 0 : threefold ? 3 : 1) * 1000.0 / kind.interval_ms;
  }
  EXPECT_LT(messages * 10, 900);
}

}  // namespace
}  // namespace nimbus::sim
