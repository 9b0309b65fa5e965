#include "control/speed_mixer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <ostream>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "base/wire.h"
#include "config/config.h"
#include "tests/unit/camera_end.h"
#include "tests/unit/support.h"

namespace {

/// Run once, when this thread is about to send a datagram.
thread_local std::function<void()> before_send;

}  // namespace

// The program's own sendto() comes before the C library's.
extern "C" ssize_t sendto(int socket, const void* data, size_t size, int flags,
                          const sockaddr* address, socklen_t length) {
  if (before_send) std::exchange(before_send, nullptr)();
  return syscall(SYS_sendto, socket, data, size, flags, address, length);
}

namespace nimbus {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

/// What a speed frame asks for, in the units of the wire.
struct Speed {
  int pan = 0;
  int tilt = 0;
  int roll = 0;

  bool operator==(const Speed&) const = default;
  Speed operator+(const Speed& other) const {
    return {pan + other.pan, tilt + other.tilt, roll + other.roll};
  }
  friend std::ostream& operator<<(std::ostream& stream, const Speed& speed) {
    return stream << speed.pan << ' ' << speed.tilt << ' ' << speed.roll;
  }
};

using Speeds = std::vector<Speed>;

constexpr Speed kStop{};
constexpr Speed kOrientationHold{1, 0, 0};

/// The wire has roll before tilt.
Speed speed_of(const test::Bytes& frame) {
  constexpr std::array<std::uint8_t, 3> kCommand{0x40, 0x04, 0x0C};
  if (frame.size() != 20 || !test::is_sound(frame) || frame[4] != 0x02 || frame[5] != 0x04 ||
      !std::equal(kCommand.begin(), kCommand.end(), frame.begin() + 8) || frame[17] != 0x90) {
    ADD_FAILURE() << "no speed frame: " << testing::PrintToString(frame);
    return {};
  }
  return {load_le<std::int16_t>(frame, 11), load_le<std::int16_t>(frame, 15),
          load_le<std::int16_t>(frame, 13)};
}

/// A viewer's speed by what it is on the wire.
void set_viewer(const Speed& speed) {
  set_viewer_speed(1, 4 * speed.pan, 4 * speed.tilt, 4 * speed.roll);
}
void set_command(const Speed& speed) {
  set_command_speed(speed.pan / 1000.0, speed.tilt / 1000.0, speed.roll / 1000.0);
}

/// The mixer at rest at the start of every test, with a camera that takes its frames.
class SpeedMixer : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (camera != nullptr) return;
    const test::Console console;
    // A viewer may be that fast: nothing is mapped and no link is open yet.
    set_viewer({1000, -2, 3});
    stream_speed(false);
    camera = new test::CameraEnd;
    stream_speed(false);
    first = sent();
  }

  void SetUp() override {
    set_inverse(0, 0, 0);
    set_viewer(kStop);
    set_command(kStop);
    sent();
  }

  static void set_inverse(std::int32_t pan, std::int32_t tilt, std::int32_t dutch) {
    config_get()->rc_input_inverse_pan = pan;
    config_get()->rc_input_inverse_tilt = tilt;
    config_get()->rc_input_inverse_dutch = dutch;
  }

  /// Takes in what has been sent, which is here as soon as the call that sent it has returned. One
  /// thread at a time.
  static void collect() {
    for (;;) {
      const test::Bytes frame = camera->receive(std::chrono::milliseconds(0));
      if (frame.empty()) return;
      collected.push_back(speed_of(frame));
    }
  }

  /// What has been sent since the last call.
  static Speeds sent() {
    collect();
    return std::exchange(collected, {});
  }

  /// What the next cycle of the stream sends.
  static Speeds streamed(bool orientation_locked = false) {
    EXPECT_EQ(sent(), Speeds{}) << "before the cycle";
    stream_speed(orientation_locked);
    return sent();
  }

  static inline test::CameraEnd* camera = nullptr;  // lives as long as the links
  static inline Speeds first;                       // of all frames
  static inline Speeds collected;
};

TEST_F(SpeedMixer, ASpeedThatIsSetBeforeTheCameraIsHeardIsStreamedOnceItIs) {
  EXPECT_EQ(first, (Speeds{{1000, -2, 3}}));
}

TEST_F(SpeedMixer, AtRestNothingIsStreamed) {
  EXPECT_EQ(streamed(), Speeds{});
  EXPECT_EQ(streamed(), Speeds{});
}

TEST_F(SpeedMixer, ASpeedIsSentByTheStreamAlone) {
  set_viewer({1000, -200, 30});
  set_viewer({1001, -200, 30});
  set_command({4, 5, 6});
  EXPECT_EQ(sent(), Speeds{});
  for (int cycle = 0; cycle < 3; ++cycle) EXPECT_EQ(streamed(), (Speeds{{1005, -195, 36}}));
}

TEST_F(SpeedMixer, AZeroSumIsSentAtOnceAndEndsTheStream) {
  using Set = void (*)(const Speed&);
  for (const auto& [set, other] : {std::pair<Set, Set>{set_viewer, set_command},
                                   std::pair<Set, Set>{set_command, set_viewer}}) {
    set({1000, -200, 30});
    EXPECT_EQ(streamed(), (Speeds{{1000, -200, 30}}));
    other({-1000, 200, -30});
    EXPECT_EQ(sent(), Speeds{kStop});
    EXPECT_EQ(streamed(), Speeds{});
    set(kStop);
    EXPECT_EQ(streamed(), (Speeds{{-1000, 200, -30}})) << "the other speed is still there";
    other(kStop);
    EXPECT_EQ(sent(), Speeds{kStop});
    EXPECT_EQ(streamed(), Speeds{});
  }
}

TEST_F(SpeedMixer, EveryZeroSumIsSent) {
  for (int i = 0; i < 3; ++i) {
    set_viewer(kStop);
    EXPECT_EQ(sent(), Speeds{kStop});
    set_command(kStop);
    EXPECT_EQ(sent(), Speeds{kStop});
  }
  EXPECT_EQ(streamed(), Speeds{});
}

TEST_F(SpeedMixer, EachAxisAloneKeepsTheStreamGoing) {
  for (const Speed& speed : {Speed{7, 0, 0}, Speed{0, 7, 0}, Speed{0, 0, 7}}) {
    set_viewer(speed);
    EXPECT_EQ(streamed(), Speeds{speed});
    set_viewer(kStop);
    EXPECT_EQ(sent(), Speeds{kStop});
    set_command(speed);
    EXPECT_EQ(streamed(), Speeds{speed});
    set_command(kStop);
    EXPECT_EQ(sent(), Speeds{kStop});
  }
}

/// A viewer's unit is a quarter of the wire's, and the rest is dropped toward zero.
TEST_F(SpeedMixer, ViewerSpeeds) {
  struct Row {
    int viewer, wire;
  };
  constexpr Row kRows[] = {
      {4000, 1000},
      {-4000, -1000},
      {4, 1},
      {-4, -1},
      {7, 1},
      {-7, -1},
      {32'767, 8191},
      {-32'768, -8192},
      {1, 0},
      {-3, 0},
      {131'072, 32'768 - 65'536},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.viewer);
    set_viewer_speed(1, row.viewer, 0, 0);
    EXPECT_EQ(streamed(), (Speeds{{row.wire, 0, 0}})) << "streamed although it may be zero there";
    set_viewer_speed(1, 0, row.viewer, 0);
    EXPECT_EQ(streamed(), (Speeds{{0, row.wire, 0}}));
    set_viewer_speed(1, 0, 0, row.viewer);
    EXPECT_EQ(streamed(), (Speeds{{0, 0, row.wire}}));
    set_viewer_speed(1, 0, 0, 0);
    EXPECT_EQ(sent(), Speeds{kStop});
  }
}

struct CommandSpeed {
  double command;
  int wire;
};

/// Thousandths, truncated toward zero, kept within 32 bits, and 16 of them sent.
constexpr CommandSpeed kCommandSpeeds[] = {
    {1.0, 1000},
    {-1.0, -1000},
    {0.0005, 0},
    {-0.0005, 0},
    {0.0019, 1},
    {-0.0019, -1},
    {32.767, 32'767},
    {-32.768, -32'768},
    {33.0, 33'000 - 65'536},
    {-33.0, 65'536 - 33'000},
    {65.536, 0},
    {2'147'483.0, 2'147'483'000 - 2'147'483'648},
    {2'147'484.0, -1},
    {-2'147'484.0, 0},
    {2'147'483'647.0, -1},
    {-2'147'483'648.0, 0},
    {1e300, -1},
    {-1e300, 0},
    {kInfinity, -1},
    {-kInfinity, 0},
    {kNan, 0},
    {std::numeric_limits<double>::denorm_min(), 0},
};

TEST_F(SpeedMixer, CommandSpeeds) {
  for (const auto& row : kCommandSpeeds) {
    SCOPED_TRACE(row.command);
    set_command_speed(row.command, 0.0, 0.0);
    EXPECT_EQ(streamed(), (Speeds{{row.wire, 0, 0}})) << "streamed although it may be zero there";
    set_command_speed(0.0, row.command, 0.0);
    EXPECT_EQ(streamed(), (Speeds{{0, row.wire, 0}}));
    set_command_speed(0.0, 0.0, row.command);
    EXPECT_EQ(streamed(), (Speeds{{0, 0, row.wire}}));
    set_command_speed(0.0, 0.0, 0.0);
    EXPECT_EQ(sent(), Speeds{kStop});
  }
}

TEST_F(SpeedMixer, NegativeZeroIsZero) {
  set_command_speed(-0.0, 0.0, -0.0);
  EXPECT_EQ(sent(), Speeds{kStop});
  set_inverse(1, 1, 1);
  set_viewer(kStop);
  EXPECT_EQ(sent(), Speeds{kStop});
  EXPECT_EQ(streamed(), Speeds{});
}

TEST_F(SpeedMixer, OtherModesChangeNothing) {
  constexpr std::array<int, 8> kModes{0,   2,     255,      -1,
                                      257, 0x101, 0x1'0001, std::numeric_limits<int>::min()};
  for (const int mode : kModes) {
    SCOPED_TRACE(mode);
    set_viewer_speed(mode, 4000, 4000, 4000);
    set_viewer_speed(mode, 0, 0, 0);
    EXPECT_EQ(streamed(), Speeds{});
    set_viewer({100, 200, 300});
    set_viewer_speed(mode, 4000, 4000, 4000);
    set_viewer_speed(mode, 0, 0, 0);
    EXPECT_EQ(streamed(), (Speeds{{100, 200, 300}}));
    set_command({1, 1, 1});
    EXPECT_EQ(streamed(), (Speeds{{101, 201, 301}})) << "the stored speeds are the old ones";
    set_command(kStop);
    set_viewer(kStop);
    EXPECT_EQ(sent(), Speeds{kStop});
  }
}

/// Each axis of each source is turned around by its own setting, once.
TEST_F(SpeedMixer, Inversion) {
  constexpr std::array<std::int32_t, 6> kSettings{
      1, -1, 2, 256, 0x10000, std::numeric_limits<std::int32_t>::min()};
  const Speed viewer{125, 250, 375};  // eighths add up exactly
  const Speed command{1125, 1250, 1375};
  for (const std::int32_t setting : kSettings) {
    for (unsigned axes = 0; axes < 8; ++axes) {
      SCOPED_TRACE(testing::Message() << "setting " << setting << ", axes " << axes);
      const auto set = [&](unsigned axis) { return (axes >> axis & 1U) != 0 ? setting : 0; };
      const auto turned = [&](const Speed& speed) {
        return Speed{set(0) != 0 ? -speed.pan : speed.pan, set(1) != 0 ? -speed.tilt : speed.tilt,
                     set(2) != 0 ? -speed.roll : speed.roll};
      };
      set_inverse(set(0), set(1), set(2));
      set_viewer(viewer);
      EXPECT_EQ(streamed(), Speeds{turned(viewer)});
      set_command(command);
      EXPECT_EQ(streamed(), Speeds{turned(viewer) + turned(command)});
      set_viewer(kStop);
      EXPECT_EQ(streamed(), Speeds{turned(command)});
      set_command(kStop);
      EXPECT_EQ(sent(), Speeds{kStop});
    }
  }
}

TEST_F(SpeedMixer, AChangedInversionWaitsForTheNextSpeed) {
  set_viewer({100, 0, 0});
  set_inverse(1, 0, 0);
  EXPECT_EQ(streamed(), (Speeds{{100, 0, 0}}));
  set_viewer({100, 0, 0});
  EXPECT_EQ(streamed(), (Speeds{{-100, 0, 0}}));
}

TEST_F(SpeedMixer, ALockedOrientationIsHeldWhileThereIsNoSpeed) {
  for (int cycle = 0; cycle < 3; ++cycle) EXPECT_EQ(streamed(true), Speeds{kOrientationHold});
  set_viewer({0, 5, 0});
  for (int cycle = 0; cycle < 3; ++cycle) EXPECT_EQ(streamed(true), (Speeds{{0, 5, 0}}));
  set_viewer(kStop);
  EXPECT_EQ(sent(), Speeds{kStop});
  EXPECT_EQ(streamed(true), Speeds{kOrientationHold});
  EXPECT_EQ(streamed(false), Speeds{}) << "an end of the lock is not announced";
}

// --- What comes between a decision and its frame -----------------------------------------------

/// The stop goes out before the speed that the stream has already taken.
TEST_F(SpeedMixer, AStopThatOvertakesTheStreamIsSentAgain) {
  set_viewer({100, 200, 300});
  before_send = [] { set_viewer(kStop); };
  EXPECT_EQ(streamed(), (Speeds{kStop, {100, 200, 300}, kStop}));
  EXPECT_EQ(streamed(), Speeds{});
}

TEST_F(SpeedMixer, AStopThatOvertakesTheStreamAndIsTakenBackIsNotSentAgain) {
  set_viewer({100, 200, 300});
  before_send = [] {
    set_viewer(kStop);
    set_command({5, 0, 0});
  };
  EXPECT_EQ(streamed(), (Speeds{kStop, {100, 200, 300}}));
  EXPECT_EQ(streamed(), (Speeds{{5, 0, 0}}));
}

TEST_F(SpeedMixer, AStopThatIsOvertakenByASpeedDoesNotEndTheStream) {
  set_viewer({100, 200, 300});
  before_send = [] {
    set_command({5, 0, 0});
    stream_speed(false);
  };
  set_viewer(kStop);
  EXPECT_EQ(sent(), (Speeds{{5, 0, 0}, kStop}));
  EXPECT_EQ(streamed(), (Speeds{{5, 0, 0}}));
}

// --- Several threads ---------------------------------------------------------------------------

/// Lets its threads through together, within the time of a few instructions.
class StartLine {
 public:
  explicit StartLine(std::size_t threads) : threads_(threads) {}

  void wait() {
    constexpr int kPatience = 1000;  // with a thread that runs; one that does not needs a processor
    const unsigned turn = turn_;
    if (++waiting_ == threads_) {
      waiting_ = 0;
      ++turn_;
    }
    for (int i = 0; turn_ == turn; ++i) {
      if (i > kPatience) std::this_thread::yield();
    }
  }

 private:
  std::size_t threads_;
  std::atomic<std::size_t> waiting_ = 0;
  std::atomic<unsigned> turn_ = 0;
};

/// What one setter does in one round: it sets those speeds, one after the other.
struct Setter {
  void (*set)(const Speed&);
  Speeds speeds{};
  unsigned head_start = 0;  ///< of the others, in steps of a few instructions

  void run() const {
    for (std::atomic<unsigned> step = 0; step < head_start;) ++step;
    for (const auto& speed : speeds) set(speed);
  }
};

/// Setters and the stream, each on its own thread, let loose at the same moment in every round. The
/// first setter's is the test's own. A round ends when the setters are through and the stream has
/// ended the cycle that it was in.
class Race {
 public:
  using Cycle = void (*)();

  /// Without a cycle, the stream stands still.
  Race(const std::vector<Setter>& setters, Cycle cycle)
      : setters_(setters), threads_(setters.size() + (cycle != nullptr ? 1 : 0)) {
    for (std::size_t i = 1; i < setters_.size(); ++i) {
      others_.emplace_back([this, i] { run_rounds([this, i] { run(setters_[i]); }); });
    }
    if (cycle == nullptr) return;
    others_.emplace_back([this, cycle] {
      run_rounds([this, cycle] {
        do {
          cycle();
        } while (through_ < setters_.size());
      });
    });
  }
  Race(const Race&) = delete;
  Race& operator=(const Race&) = delete;
  ~Race() {
    over_ = true;
    start_.wait();
  }

  void round() {
    through_ = 0;
    start_.wait();
    run(setters_[0]);
    end_.wait();
  }

 private:
  void run(const Setter& setter) {
    setter.run();
    ++through_;
  }

  template <typename Work>
  void run_rounds(Work work) {
    for (;;) {
      start_.wait();
      if (over_) return;
      work();
      end_.wait();
    }
  }

  const std::vector<Setter>& setters_;
  std::size_t threads_;
  StartLine start_{threads_};
  StartLine end_{threads_};
  std::atomic<std::size_t> through_ = 0;
  std::atomic<bool> over_ = false;
  std::vector<std::jthread> others_;
};

class SpeedMixerRace : public SpeedMixer {
 protected:
  /// One cycle. What was sent is taken in at once: no socket could hold all of a round.
  static void stream() {
    stream_speed(false);
    collect();
  }

  /// Repeats a round for a while, until one fails.
  template <typename Round>
  static void repeat(Round round) {
    constexpr std::chrono::seconds kTime(1);
    const auto deadline = std::chrono::steady_clock::now() + kTime;
    for (int i = 0; std::chrono::steady_clock::now() < deadline && !HasFailure(); ++i) {
      SCOPED_TRACE(testing::Message() << "round " << i);
      round();
    }
  }

  /// Up to four speeds of a few, so that many sums are zero.
  Speeds some_speeds() {
    static constexpr std::array<Speed, 5> kSpeeds{{
        kStop,
        {1000, 0, 0},
        {-1000, 0, 0},
        {1000, 0, -500},
        {-1000, 0, 500},
    }};
    Speeds speeds(1 + random_() % 4);
    for (auto& speed : speeds) speed = kSpeeds[random_() % kSpeeds.size()];
    return speeds;
  }

  unsigned some_delay() { return random_() % 32; }

  /// Passes if the gimbal is left with one of those sums: with a stop as the last frame and then
  /// silence, or with a stream that goes on.
  static void expect_left_with(const Speeds& sums) {
    auto frames = sent();
    stream_speed(false);
    // A stream that finds the sum zero may send its own stop, once.
    const auto next = sent();
    frames.insert(frames.end(), next.begin(), next.end());
    stream_speed(false);
    const auto then = sent();
    ASSERT_LE(then.size(), 1U);
    const Speed left = then.empty() ? kStop : then[0];
    ASSERT_NE(std::find(sums.begin(), sums.end(), left), sums.end())
        << "left with " << left << " for " << testing::PrintToString(sums);
    ASSERT_FALSE(frames.empty());
    ASSERT_EQ(frames.back(), left) << "the last frame";
    ASSERT_TRUE(then.empty() || left != kStop) << "a stop that never ends";
  }

  std::mt19937 random_{20'241};
};

/// A stop that comes while the stream is sending must not be followed by the old speed.
TEST_F(SpeedMixerRace, AStaleSpeedIsNeverTheLast) {
  std::vector<Setter> setters{{set_viewer}};
  Race race(setters, stream);
  repeat([&] {
    setters[0].speeds.assign(1 + random_() % 8, {1000, -2000, 3000});
    setters[0].speeds.push_back(kStop);
    race.round();
    expect_left_with({kStop});
  });
}

TEST_F(SpeedMixerRace, AViewerAndACommand) {
  std::vector<Setter> setters{{set_viewer}, {set_command}};
  Race race(setters, stream);
  repeat([&] {
    for (auto& setter : setters) setter = {setter.set, some_speeds(), some_delay()};
    SCOPED_TRACE(testing::Message() << "viewer " << testing::PrintToString(setters[0].speeds)
                                    << ", command " << testing::PrintToString(setters[1].speeds));
    race.round();
    expect_left_with({setters[0].speeds.back() + setters[1].speeds.back()});
  });
}

/// One stops the gimbal while another starts it, each without a sight of the other's speed yet.
TEST_F(SpeedMixerRace, ASpeedThatIsSetDuringAStopIsStreamed) {
  std::vector<Setter> setters{{set_viewer}, {set_command}};
  Race race(setters, nullptr);
  repeat([&] {
    set_viewer({1000, 0, 0});
    set_command(kStop);
    setters[0] = {set_viewer, {kStop}, some_delay()};
    setters[1] = {set_command, {{500, 0, 0}}, some_delay()};
    race.round();
    expect_left_with({{500, 0, 0}});
  });
}

/// Two speeds that cancel out, each set by somebody who may not see the other's yet.
TEST_F(SpeedMixerRace, ASumThatTwoHaveMadeZeroIsNotStreamedForEver) {
  std::vector<Setter> setters{{set_viewer}, {set_command}};
  Race race(setters, nullptr);
  repeat([&] {
    set_viewer(kStop);
    set_command(kStop);
    setters[0] = {set_viewer, {{1000, 0, 0}}, some_delay()};
    setters[1] = {set_command, {{-1000, 0, 0}}, some_delay()};
    race.round();
    expect_left_with({kStop});
  });
}

/// Commands and the RC receiver share one speed: either of them may be the last.
TEST_F(SpeedMixerRace, AViewerACommandAndTheRcReceiver) {
  std::vector<Setter> setters{{set_viewer}, {set_command}, {set_command}};
  Race race(setters, stream);
  repeat([&] {
    for (auto& setter : setters) setter = {setter.set, some_speeds(), some_delay()};
    race.round();
    const Speed viewer = setters[0].speeds.back();
    Speeds sums;
    // Each axis of the shared speed is stored by itself.
    for (const auto& pan : {setters[1].speeds.back(), setters[2].speeds.back()}) {
      for (const auto& roll : {setters[1].speeds.back(), setters[2].speeds.back()}) {
        sums.push_back(viewer + Speed{pan.pan, 0, roll.roll});
      }
    }
    expect_left_with(sums);
  });
}

}  // namespace
}  // namespace nimbus
