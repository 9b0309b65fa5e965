#include <gtest/gtest.h>

#include <array>
#include <string>

#include "control/rc_map.h"
#include "support.h"
#include "tools/common/failure.h"
#include "tools/sim/rc_reader.h"
#include "tools/sim/rc_script.h"

namespace nimbus::sim {
namespace {

std::size_t code(RcFunction function) { return static_cast<std::size_t>(function); }

RcScript parse(std::string_view text) { return parse_rc_script(text, "test.rc"); }

/// What the receiver says so many seconds after the start.
RcReceiver receiver_at(std::string_view script, double seconds) {
  RcPlayer player(parse(script));
  RcReceiver receiver;
  player.play(seconds, receiver);
  return receiver;
}

std::optional<double> pan_at(std::string_view script, double seconds) {
  return receiver_at(script, seconds).functions[code(RcFunction::pan)];
}

// --- Good scripts ------------------------------------------------------------------------------

TEST(RcScript, Empty) {
  for (const char* const text : {"", "\n", "# nothing\n\n   \t\r\n  # more"}) {
    const RcScript script = parse(text);
    EXPECT_TRUE(script.steps.empty());
    EXPECT_EQ(script.length, 0);
    EXPECT_FALSE(script.loops);
  }
  EXPECT_EQ(RcReceiver{}.state, 6);
}

TEST(RcScript, EveryAction) {
  const RcReceiver receiver = receiver_at(
      "state = 3\n"
      "channel 1 = 1000  # the first\n"
      "channel 32=65535\r\n"
      "\tfunction  orient-lock=-0.5\n"
      "function pan = 1",
      0);
  EXPECT_EQ(receiver.state, 3);
  EXPECT_EQ(receiver.channels[0], 1000);
  EXPECT_EQ(receiver.channels[31], 65535);
  EXPECT_FALSE(receiver.channels[1]);
  EXPECT_EQ(receiver.functions[code(RcFunction::orient_lock)], -0.5);
  EXPECT_EQ(receiver.functions[code(RcFunction::pan)], 1);
  EXPECT_FALSE(receiver.functions[code(RcFunction::tilt)]);
}

TEST(RcScript, EveryFunction) {
  for (const auto& [word, function] : kRcFunctionWords) {
    const auto receiver = receiver_at("function " + std::string(word) + " = 0.25", 0);
    EXPECT_EQ(receiver.functions[code(function)], 0.25) << word;
  }
}

TEST(RcScript, OffTakesAway) {
  const RcReceiver receiver =
      receiver_at("function pan = 1\nchannel 3 = 1500\nfunction pan = off\nchannel 3 = off", 0);
  EXPECT_FALSE(receiver.functions[code(RcFunction::pan)]);
  EXPECT_FALSE(receiver.channels[2]);
}

TEST(RcScript, TimesOfAtAndWait) {
  constexpr const char* kScript =
      "at 1.5 function pan = 0.1\n"
      "function pan = 0.2\n"
      "wait 0.5\n"
      "function pan = 0.3\n"
      "at 4 wait 1\n"
      "at 5 function pan = 0.4\n";
  EXPECT_FALSE(pan_at(kScript, 1.49));
  EXPECT_EQ(pan_at(kScript, 1.5), 0.2);
  EXPECT_EQ(pan_at(kScript, 1.99), 0.2);
  EXPECT_EQ(pan_at(kScript, 2), 0.3);
  EXPECT_EQ(pan_at(kScript, 4.99), 0.3);
  EXPECT_EQ(pan_at(kScript, 5), 0.4);
  EXPECT_EQ(pan_at(kScript, 1000), 0.4);
  EXPECT_EQ(parse(kScript).length, 5);
}

TEST(RcScript, Loops) {
  constexpr const char* kScript =
      "function pan = 0.1\n"
      "wait 1\n"
      "function pan = 0.2\n"
      "wait 1\n"
      "loop\n"
      "# nothing but comments behind it\n";
  for (int round = 0; round < 5; ++round) {
    EXPECT_EQ(pan_at(kScript, 2 * round + 0.5), 0.1);
    EXPECT_EQ(pan_at(kScript, 2 * round + 1.5), 0.2);
  }
  RcPlayer player(parse("at 0.5 function pan = 1\nat 2 loop"));
  RcReceiver receiver;
  for (int tenth = 0; tenth < 100; ++tenth) {
    receiver.functions[code(RcFunction::pan)].reset();
    player.play(tenth / 10.0, receiver);
    EXPECT_EQ(receiver.functions[code(RcFunction::pan)].has_value(), tenth % 20 == 5) << tenth;
  }
}

// --- Bad scripts -------------------------------------------------------------------------------

struct BadScript {
  const char* text;
  const char* message;  ///< how what is said begins
};

constexpr auto kBadScripts = std::to_array<BadScript>({
    {"jump",
     "test.rc:1: unknown word 'jump'; expected at, wait, state, channel, function "
     "or loop"},
    {"\n# two\n  = 3", "test.rc:3: unknown word '='; expected at,"},
    {"wait", "test.rc:1: 'wait' without a time; expected a number of seconds"},
    {"wait soon", "test.rc:1: 'wait' without a time"},
    {"wait -1", "test.rc:1: 'wait' without a time"},
    {"wait inf", "test.rc:1: 'wait' without a time"},
    {"wait 1 2", "test.rc:1: '2' is too much; expected 'wait SECONDS'"},
    {"at", "test.rc:1: 'at' without a time"},
    {"at 1", "test.rc:1: 'at' without an action; expected state,"},
    {"at 1 at 2 loop", "test.rc:1: unknown word 'at'"},
    {"wait 3\nat 2 state = 6", "test.rc:2: 'at 2' goes back; expected 3 seconds or later"},
    {"loop", "test.rc:1: 'loop' of a script that takes no time"},
    {"wait 1\nloop now", "test.rc:2: 'now' is too much; expected 'loop'"},
    {"wait 1\nloop\nstate = 6", "test.rc:3: stands behind 'loop'"},
    {"state", "test.rc:1: the line is too short; expected 'state = NUMBER'"},
    {"state : 6", "test.rc:1: no '=' before '6'; expected 'state = NUMBER'"},
    {"state = 256", "test.rc:1: '256' is no state; expected a number from 0 to 255"},
    {"state = 6.5", "test.rc:1: '6.5' is no state"},
    {"state = off", "test.rc:1: 'off' is no state"},
    {"channel 0 = 1500", "test.rc:1: '0' is no channel; expected a number from 1 to 32"},
    {"channel 33 = 1500", "test.rc:1: '33' is no channel"},
    {"channel 1 = 65536",
     "test.rc:1: '65536' is no channel value; expected a number "
     "from 0 to 65535, or off"},
    {"channel 1 = -1", "test.rc:1: '-1' is no channel value"},
    {"channel = 1500", "test.rc:1: the line is too short"},
    {"function Pan = 0", "test.rc:1: unknown function 'Pan'; expected one of pan, tilt,"},
    {"function pan = 1.1",
     "test.rc:1: '1.1' is no stick value; expected a number from "
     "-1 to 1, or off"},
    {"function pan = left", "test.rc:1: 'left' is no stick value"},
    {"function pan = 0 1", "test.rc:1: '1' is too much"},
    {"function pan 0",
     "test.rc:1: the line is too short; expected 'function NAME = "
     "VALUE'"},
});

TEST(RcScript, ErrorsNameTheLineAndWhatIsExpected) {
  for (const auto& [text, message] : kBadScripts) {
    try {
      static_cast<void>(parse(text));
      ADD_FAILURE() << text << " was taken";
    } catch (const tools::Failure& failure) {
      const std::string said = failure.what();
      EXPECT_TRUE(said.starts_with(message)) << said;
      EXPECT_EQ(said.find('\n'), std::string::npos) << said;
      EXPECT_TRUE(said.find("expected") != std::string::npos) << said;
    }
  }
}

// --- The region --------------------------------------------------------------------------------

class RcReader : public testing::Test {
 protected:
  void SetUp() override {
    test::set_bytes(display, std::string(sizeof display, '\0'));
    for (auto& channel : display.rc_channel_map) channel = code_byte(RcFunction::none);
  }

  static std::uint8_t code_byte(RcFunction function) { return static_cast<std::uint8_t>(function); }

  bool assigned(RcFunction function) const {
    return display.rc_function_assigned[code(function)] != 0;
  }
  double centred(RcFunction function) const { return display.rc_function_centred[code(function)]; }
  double position(RcFunction function) const {
    return display.rc_function_position[code(function)];
  }

  DisplayRegion display;
  RcReceiver receiver;
};

TEST_F(RcReader, ChannelsDriveTheirFunctions) {
  display.rc_channel_map[0] = code_byte(RcFunction::pan);
  display.rc_channel_map[4] = code_byte(RcFunction::ev);
  receiver.channels[0] = 1250;
  receiver.channels[1] = 1600;
  receiver.channels[4] = 2200;
  write_receiver(receiver, display);
  EXPECT_EQ(display.rc_status, 6);
  EXPECT_EQ(display.rc_channel_values[0], 1250);
  EXPECT_EQ(display.rc_channel_values[1], 1600);
  EXPECT_EQ(display.rc_channel_values[2], 0);
  EXPECT_TRUE(assigned(RcFunction::pan));
  EXPECT_EQ(centred(RcFunction::pan), -0.5);
  EXPECT_EQ(position(RcFunction::pan), 0.25);
  EXPECT_TRUE(assigned(RcFunction::ev));
  EXPECT_EQ(centred(RcFunction::ev), 1);
  EXPECT_EQ(position(RcFunction::ev), 1);
  EXPECT_FALSE(assigned(RcFunction::tilt));
}

TEST_F(RcReader, AMissingChannelDrivesNothing) {
  display.rc_channel_map[0] = code_byte(RcFunction::pan);
  write_receiver(receiver, display);
  EXPECT_FALSE(assigned(RcFunction::pan));
  EXPECT_EQ(centred(RcFunction::pan), 0);
}

TEST_F(RcReader, FunctionsGoBeforeChannels) {
  display.rc_channel_map[0] = code_byte(RcFunction::pan);
  receiver.channels[0] = 2000;
  receiver.functions[code(RcFunction::pan)] = -0.25;
  receiver.functions[code(RcFunction::orient_lock)] = 1.0;
  write_receiver(receiver, display);
  EXPECT_EQ(centred(RcFunction::pan), -0.25);
  EXPECT_TRUE(assigned(RcFunction::orient_lock));
  EXPECT_EQ(centred(RcFunction::orient_lock), 1);
}

TEST_F(RcReader, ARegionWithoutAMapHasNone) {
  for (auto& channel : display.rc_channel_map) channel = std::uint8_t{0};
  receiver.channels[5] = 2000;
  write_receiver(receiver, display);
  EXPECT_FALSE(assigned(RcFunction::pan));
  EXPECT_EQ(display.rc_channel_values[5], 2000);
}

TEST_F(RcReader, NothingIsAssignedWhileTheReceiverIsNotLive) {
  receiver.functions[code(RcFunction::pan)] = 1.0;
  write_receiver(receiver, display);
  EXPECT_TRUE(assigned(RcFunction::pan));
  receiver.state = 5;
  write_receiver(receiver, display);
  EXPECT_FALSE(assigned(RcFunction::pan));
  EXPECT_EQ(display.rc_status, 5);
}

TEST_F(RcReader, WritesNothingElse) {
  const std::string before = test::bytes_of(display);
  receiver.channels.fill(1700);
  receiver.functions.fill(0.5);
  write_receiver(receiver, display);
  const std::string after = test::bytes_of(display);
  for (std::size_t i = 0; i < after.size(); ++i) {
    const bool own =
        i == 1175 || (i >= 1178 && i < 1242) || (i >= 1274 && i < 1338) || (i >= 1344 && i < 1856);
    if (!own) {
      ASSERT_EQ(after[i], before[i]) << i;
    }
  }
}

}  // namespace
}  // namespace nimbus::sim
