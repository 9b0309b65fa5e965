#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "tools/common/failure.h"
#include "tools/ctl/commands.h"
#include "tools/ctl/completion.h"
#include "tools/ctl/json.h"
#include "tools/ctl/settings.h"

namespace nimbus::ctl {
namespace {

using Words = std::vector<std::string>;

Words split(std::string_view text) {
  std::istringstream stream{std::string(text)};
  return {std::istream_iterator<std::string>(stream), {}};
}

std::string json(std::string_view typed, bool force = false) {
  const Words words = split(typed);
  return json_for(find_command(words), words, force);
}

std::string failure(std::string_view typed) {
  try {
    return "made " + json(typed);
  } catch (const tools::Failure& error) {
    return error.what();
  }
}

/// The text of a file of the project.
std::string content(const char* name) {
  const auto root = std::filesystem::path(NIMBUS_SOURCE_DIR);
  std::ifstream file(root / name);
  EXPECT_TRUE(file) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

/// What the shell offers behind these words.
std::set<std::string> offered(const Words& words) {
  const auto choices = choices_behind(words);
  return {choices.begin(), choices.end()};
}

TEST(CtlCommands, Json) {
  EXPECT_EQ(json("shot"), R"({"cmd":"shot"})");
  EXPECT_EQ(json("record start"), R"({"cmd":"record","param":"start"})");
  EXPECT_EQ(json("iso 400"), R"({"cmd":"iso","param":"400"})");
  EXPECT_EQ(json("shutter 1/50"), R"({"cmd":"shutter","param":"50"})");
  EXPECT_EQ(json("shutter 1/1.25"), R"({"cmd":"shutter","param":"1.25"})");
  EXPECT_EQ(json("shutter 1s"), R"({"cmd":"shutter","param":"1s"})");
  EXPECT_EQ(json("ev -0.3"), R"({"cmd":"ev","param":"-0.3"})");
  EXPECT_EQ(json("wb custom 5600"), R"({"cmd":"wb","param":"custom","value1":"5600"})");
  EXPECT_EQ(json("wb neon"), R"({"cmd":"wb","param":"neon"})");
  EXPECT_EQ(json("histogram off"), R"({"cmd":"hystogram","param":"0"})");
  EXPECT_EQ(json("focus 0.5 1"), R"({"cmd":"focus","param":"point","value1":"0.5","value2":"1"})");
  EXPECT_EQ(json("focus type afs"), R"({"cmd":"focus","param":"type","value1":"afs"})");
  EXPECT_EQ(json("gimbal move 1 2"),
            R"({"cmd":"position","param":"moverel","value1":"1","value2":"2"})");
  EXPECT_EQ(json("gimbal move 1 2 -3"),
            R"({"cmd":"position","param":"moverel","value1":"1","value2":"2","value3":"-3"})");
  EXPECT_EQ(json("channels yes"), R"({"cmd":"rc","name":"showchannels","value":"1"})");
}

TEST(CtlCommands, ForcedValuesGoAsTheyAre) {
  EXPECT_EQ(json("iso 125", true), R"({"cmd":"iso","param":"125"})");
  EXPECT_EQ(json("shutter 50", true), R"({"cmd":"shutter","param":"50"})");
  EXPECT_THROW(static_cast<void>(json("iso", true)), tools::Failure);
}

TEST(CtlCommands, Failures) {
  EXPECT_EQ(failure("iso 125"),
            "iso: ISO cannot be '125'; expected auto, 100, 200, 400, 800, 1600, 3200, 6400");
  EXPECT_EQ(failure("iso"), "iso has 0 value(s); expected ISO");
  EXPECT_EQ(failure("shot now"), "shot has 1 value(s); expected none");
  EXPECT_EQ(failure("record"), "record needs a word; expected start, stop");
  EXPECT_EQ(failure("record on"), "record knows no 'on'; expected start, stop");
  EXPECT_EQ(failure("wb custom 1901"),
            "wb custom: KELVIN cannot be '1901'; expected an integer from 2000 to 25599");
  for (const char* const bad :
       {"ev 0.33", "ev inf", "ev 0,3", "shutter 2", "shutter 1/2s", "aperture 0", "aperture 2.8x",
        "focus 1.1 0", "focus nan 0", "exposure point 256", "exposure point -1",
        "gimbal move 1 2.5", "gimbal move 99999999999 0", "iso 0400", "resolution 1920x1080",
        "color Vivid"}) {
    EXPECT_NE(failure(bad).find("; expected "), std::string::npos) << failure(bad);
  }
}

TEST(CtlCommands, EveryRow) {
  std::set<std::string_view> words;
  for (const Command& command : all_commands()) {
    EXPECT_TRUE(words.insert(command.words).second) << command.words;
    EXPECT_FALSE(command.help.empty()) << command.words;
    const std::string text = json(std::string(command.words) + " " + std::string(command.example));
    const Json parsed = parse_object(text);
    ASSERT_NE(parsed, nullptr) << text;
    EXPECT_FALSE(member_text(parsed.get(), "cmd").empty()) << text;
    for (const Argument& argument : command.arguments) {
      if (argument.name.empty()) break;
      ASSERT_NE(argument.accepts, nullptr) << command.words;
      EXPECT_FALSE(argument.accepts->expected().empty()) << command.words;
    }
  }
}

TEST(CtlCommands, EveryRowCanBeCompleted) {
  for (const Command& command : all_commands()) {
    Words words;
    for (const std::string& word : split(command.words)) {
      if (!words.empty()) {
        EXPECT_TRUE(offered(words).contains(word)) << command.words;
      }
      words.push_back(word);
    }
    std::size_t index = 0;
    for (const std::string& value : split(command.example)) {
      const Shape shape = command.arguments.at(index++).accepts->shape();
      EXPECT_TRUE(shape.kind != "choice" || offered(words).contains(value)) << command.words;
      words.push_back(value);
    }
  }
}

TEST(CtlCommands, Completion) {
  using Set = std::set<std::string>;
  EXPECT_EQ(offered({}), Set{});
  EXPECT_EQ(offered({"record"}), (Set{"start", "stop"}));
  EXPECT_EQ(offered({"record", "start"}), Set{});
  EXPECT_EQ(offered({"wb"}), (Set{"custom", "auto", "sunny", "cloudy", "incandescent", "neon"}));
  EXPECT_EQ(offered({"wb", "custom"}), Set{});
  EXPECT_EQ(offered({"histogram"}), (Set{"on", "off"}));
  EXPECT_FALSE(offered({"color"}).contains("black white")) << "a blank cannot be completed";
  EXPECT_EQ(offered({"config", "set"}).size(), all_settings().size() + 1);
  EXPECT_EQ(offered({"config", "set", "osd_enabled"}), (Set{"on", "off"}));
  EXPECT_EQ(offered({"config", "set", "osd_enabled", "on"}), Set{});
  EXPECT_EQ(offered({"config", "set", "wifi", "ap_ssid=x"}).size(), wifi_values().size());
  EXPECT_EQ(offered({"config", "set", "volume"}), Set{});
  EXPECT_EQ(offered({"wifi", "scan"}), (Set{"wifi0", "wlan0"}));
  EXPECT_EQ(offered({"nonsense"}), Set{});
}

TEST(CtlCommands, ManualFollowsTheTable) {
  std::string manual = content("docs/man/nimbusctl.1");
  std::erase(manual, '\\');
  for (const Command& command : all_commands()) {
    EXPECT_NE(manual.find(command.words), std::string::npos) << command.words;
  }
}

// --- Settings ----------------------------------------------------------------------------------

std::string setting(std::string_view name, const Words& values, const char* report = "{}") {
  return json_for_setting(name, values, false, parse_object(report).get());
}

TEST(CtlSettings, Json) {
  EXPECT_EQ(setting("video_bitrate", {"5"}),
            R"({"cmd":"updateparam","name":"video_bitrate","value":"5"})");
  EXPECT_EQ(setting("osd_borders", {"5", "6"}),
            R"({"cmd":"updateparam","name":"osd_borders","value":"5","value2":"6"})");
  EXPECT_EQ(setting("hdmimode", {"default"}),
            R"({"cmd":"updateparam","name":"hdmimode","value":"default"})");
  EXPECT_EQ(setting("hdmimode", {"default", "on"}),
            R"({"cmd":"updateparam","name":"hdmimode","value":"default","value2":"1"})");
}

TEST(CtlSettings, NumbersOfValues) {
  for (const Words& values : {Words{}, Words{"1"}, Words{"1", "2", "3"}}) {
    EXPECT_THROW(static_cast<void>(setting("osd_borders", values)), tools::Failure);
  }
  EXPECT_THROW(static_cast<void>(setting("hdmimode", {})), tools::Failure);
  EXPECT_THROW(static_cast<void>(setting("hdmimode", {"default", "on", "on"})), tools::Failure);
  EXPECT_THROW(static_cast<void>(setting("volume", {"1"})), tools::Failure);
}

TEST(CtlSettings, WifiLeavesWhatIsNotNamed) {
  EXPECT_EQ(setting("wifi", {"ap_mode=2.4", "lan_ssid=x=y", "lan_iface=none"},
                    R"({"cam_iface":"2","cam_ssid":"C","ap_mode":5,"ap_channel":11})"),
            R"({"cmd":"updateparam","name":"wifi","value":"","value2":"C","value3":"",)"
            R"("value4":"0","value5":"x=y","value6":"","value7":"","value8":"","value9":"",)"
            R"("value10":"2.4","value11":"11","value12":""})");
  EXPECT_THROW(static_cast<void>(setting("wifi", {"ap_ssid"})), tools::Failure);
  EXPECT_THROW(static_cast<void>(setting("wifi", {"ap_ssid=a\"b"})), tools::Failure);
}

TEST(CtlSettings, ChannelMap) {
  EXPECT_TRUE(kRcMap.convert(""));
  EXPECT_TRUE(kRcMap.convert("pan,,tilt"));
  EXPECT_TRUE(kRcMap.convert(std::string(31, ',')));
  EXPECT_FALSE(kRcMap.convert(std::string(32, ',')));
  EXPECT_FALSE(kRcMap.convert("pan, tilt"));
}

}  // namespace
}  // namespace nimbus::ctl
