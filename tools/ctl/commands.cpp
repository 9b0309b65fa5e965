#include "tools/ctl/commands.h"

#include <algorithm>
#include <iterator>

#include "camera/words.h"
#include "tools/common/failure.h"
#include "tools/ctl/json.h"

namespace nimbus::ctl {
namespace {

using std::chrono::milliseconds;

// --- Words that the service compares one by one ------------------------------------------------

constexpr std::array<Word<std::string_view>, 3> kAntiFlickerWords{
    {{"off", "off"}, {kAntiFlickers[0].word, "50"}, {kAntiFlickers[1].word, "60"}}};

// --- What values may be ------------------------------------------------------------------------

// A colour temperature travels in a byte of hundreds of kelvin.
constexpr auto* kKelvin = &kInteger<2000, 25'599>;
constexpr auto* kPoint = &kInteger<0, 255>;

// --- The table ---------------------------------------------------------------------------------

constexpr milliseconds kExposurePointTakes{200};
constexpr milliseconds kExposureCentreTakes{100};
constexpr milliseconds kFocusPointTakes{20};
constexpr milliseconds kRemountTakes{1000};

constexpr auto kCommands = std::to_array<Command>({
    // clang-format off
    // Words, what they do, the members that stand fast, the values, an example.
    {"mode", "switch the camera between photo and video",
     {{{"cmd", "camera"}, {"param", "mode"}}},
     {{{"MODE", "value1", &kWordsOf<kCameraModes>}}}, "video"},
    {"shot", "take a photo", {{{"cmd", "shot"}}}, {}, ""},
    {"shotmode", "set the format of photos", {{{"cmd", "shotmode"}}},
     {{{"FORMAT", "param", &kWordsOf<kShotModes>}}}, "jpg+raw"},
    {"record start", "start recording", {{{"cmd", "record"}, {"param", "start"}}}, {}, ""},
    {"record stop", "stop recording", {{{"cmd", "record"}, {"param", "stop"}}}, {}, ""},

    {"iso", "set the ISO value", {{{"cmd", "iso"}}},
     {{{"ISO", "param", &kWordsOf<kIsoWords>}}}, "400"},
    {"shutter", "set the exposure time", {{{"cmd", "shutter"}}},
     {{{"TIME", "param", &kShutter}}}, "1/50"},
    {"aperture", "set the aperture", {{{"cmd", "aperture"}}},
     {{{"F-NUMBER", "param", &kFNumber}}}, "2.8"},
    {"ev", "set the exposure compensation", {{{"cmd", "ev"}}}, {{{"EV", "param", &kEv}}}, "-0.3"},
    {"wb custom", "set the white balance to a colour temperature",
     {{{"cmd", "wb"}, {"param", "custom"}}}, {{{"KELVIN", "value1", kKelvin}}}, "5600"},
    {"wb", "set the white balance", {{{"cmd", "wb"}}},
     {{{"NAME", "param", &kWordsOf<kWhiteBalanceWords>}}}, "cloudy"},
    {"color", "set the colour profile", {{{"cmd", "color"}}},
     {{{"PROFILE", "param", &kColour}}}, "d-log"},
    {"antiflicker", "set the frequency of the light", {{{"cmd", "antiflicker"}}},
     {{{"HERTZ", "param", &kWordsOf<kAntiFlickerWords>}}}, "50"},
    {"exposure mode", "set who chooses shutter and aperture", {{{"cmd", "video_mode"}}},
     {{{"MODE", "param", &kWordsOf<kExposureModes>}}}, "manual"},
    {"exposure point", "meter at a point of the picture, and lock",
     {{{"cmd", "exposure"}, {"param", "point"}}}, {{{"POINT", "value1", kPoint}}}, "27",
     kExposurePointTakes},
    {"exposure center", "meter at the centre, unlocked",
     {{{"cmd", "exposure"}, {"param", "center"}}}, {}, "", kExposureCentreTakes},
    {"exposure lock", "lock the exposure",
     {{{"cmd", "exposure"}, {"param", "auto"}, {"value1", "lock"}}}, {}, ""},
    {"exposure unlock", "unlock the exposure",
     {{{"cmd", "exposure"}, {"param", "auto"}, {"value1", "unlock"}}}, {}, ""},
    {"histogram", "switch the camera's histogram", {{{"cmd", "hystogram"}}},
     {{{"ON", "param", &kOnOff}}}, "on"},

    {"resolution", "set the size and the rate of the video", {{{"cmd", "video_resolution"}}},
     {{{"FORMAT", "param", &kWordsOf<kVideoFormats>}}}, "1920x1080@30"},
    {"aspect", "set the aspect ratio of photos", {{{"cmd", "video_aspect"}}},
     {{{"RATIO", "param", &kWordsOf<kAspectRatios>}}}, "16:9"},

    {"focus type", "focus continuously (afc) or once (afs)",
     {{{"cmd", "focus"}, {"param", "type"}}},
     {{{"TYPE", "value1", &kWordsOf<kFocusTypes>}}}, "afc"},
    {"focus", "focus on a point of the picture", {{{"cmd", "focus"}, {"param", "point"}}},
     {{{"X", "value1", &kFraction}, {"Y", "value2", &kFraction}}}, "0.5 0.25", kFocusPointTakes},
    {"tracking start", "track what is in a rectangle", {{{"cmd", "tracking"}, {"param", "start"}}},
     {{{"X", "value1", &kFraction}, {"Y", "value2", &kFraction},
       {"WIDTH", "value3", &kFraction}, {"HEIGHT", "value4", &kFraction}}}, "0.4 0.4 0.2 0.2"},
    {"tracking stop", "stop tracking", {{{"cmd", "tracking"}, {"param", "stop"}}}, {}, ""},

    {"gimbal mode", "set the gimbal's mode", {{{"cmd", "gimbal"}, {"param", "mode"}}},
     {{{"MODE", "value1", &kWordsOf<kGimbalModes>}}}, "fpv"},
    {"gimbal follow", "set how fast the gimbal follows",
     {{{"cmd", "gimbal"}, {"param", "follow"}}},
     {{{"SPEED", "value1", &kWordsOf<kFollowSpeeds>}}}, "slow"},
    {"gimbal centre", "look ahead", {{{"cmd", "position"}, {"param", "normal"}}}, {}, ""},
    {"gimbal selfie", "look back", {{{"cmd", "position"}, {"param", "selfie"}}}, {}, ""},
    {"gimbal calibrate", "calibrate the gimbal",
     {{{"cmd", "horizont"}, {"param", "calibrate"}}}, {}, ""},
    {"gimbal move", "move until told otherwise; 4000 is full speed, and 0 0 ends it",
     {{{"cmd", "position"}, {"param", "moverel"}}},
     {{{"PAN", "value1", &kNumber}, {"TILT", "value2", &kNumber},
       {"ROLL", "value3", &kNumber, kOptional}}}, "1000 -500"},
    {"gimbal speed", "move until told otherwise; 1 is full speed, and 0 0 0 ends it",
     {{{"cmd", "position"}, {"param", "speed"}}},
     {{{"PAN", "value1", &kNumber}, {"TILT", "value2", &kNumber}, {"ROLL", "value3", &kNumber}}},
     "1 0 0"},
    {"gimbal goto", "nothing: the service takes this command and has no such move",
     {{{"cmd", "position"}, {"param", "move"}}}, {}, ""},
    {"orientation lock", "lock the gimbal's orientation",
     {{{"cmd", "orientation"}, {"param", "lock"}}}, {}, ""},
    {"orientation unlock", "unlock the gimbal's orientation",
     {{{"cmd", "orientation"}, {"param", "unlock"}}}, {}, ""},

    {"channels", "switch the display of the RC channels",
     {{{"cmd", "rc"}, {"name", "showchannels"}}}, {{{"ON", "value", &kOnOff}}}, "on"},

    {"format-card", "erase the camera's card", {{{"cmd", "formatmicrosd"}}}, {}, "",
     milliseconds{0}, Asks::yes},
    {"reset-camera", "set the camera back to its defaults", {{{"cmd", "resetcamera"}}}, {}, "",
     milliseconds{0}, Asks::yes},
    {"recalibrate", "forget the calibration of the RC receiver",
     {{{"cmd", "rc"}, {"name", "recalibrate"}}}, {}, "", kRemountTakes, Asks::yes},
    {"restart", "restart the service", {{{"cmd", "restart"}}}, {}, "", milliseconds{0}, Asks::yes},
    {"reboot", "reboot the board", {{{"cmd", "reboot"}}}, {}, "", milliseconds{0}, Asks::yes},
    {"shutdown", "shut the board down", {{{"cmd", "shutdown"}}}, {}, "", milliseconds{0},
     Asks::yes},
    // clang-format on
});

bool begins_with(std::span<const std::string> arguments, std::string_view words) {
  const auto parts = words_of(words);
  return arguments.size() >= parts.size() &&
         std::equal(parts.begin(), parts.end(), arguments.begin());
}

std::size_t count(std::span<const Argument> arguments, bool with_optional) {
  return static_cast<std::size_t>(
      std::count_if(arguments.begin(), arguments.end(), [with_optional](const Argument& one) {
        return !one.name.empty() && (with_optional || !one.optional);
      }));
}

}  // namespace

std::span<const Command> all_commands() { return kCommands; }

std::vector<std::string_view> words_of(std::string_view text) {
  std::vector<std::string_view> words;
  for (;;) {
    const auto blank = text.find(' ');
    words.push_back(text.substr(0, blank));
    if (blank == std::string_view::npos) return words;
    text.remove_prefix(blank + 1);
  }
}

std::string names_of(std::span<const Argument> arguments) {
  std::string text;
  for (const Argument& argument : arguments) {
    if (argument.name.empty()) break;
    const std::string name(argument.name);
    text += argument.optional ? " [" + name + "]" : " " + name;
  }
  return text;
}

std::string_view first_word(const Command& command) { return words_of(command.words).front(); }

std::string usage(const Command& command) {
  return std::string(command.words) + names_of(command.arguments);
}

const Command& find_command(std::span<const std::string> arguments) {
  const Command* found = nullptr;
  std::string second_words;
  for (const Command& command : kCommands) {
    if (first_word(command) != arguments.front()) continue;
    const auto parts = words_of(command.words);
    if (parts.size() > 1) append_word(second_words, parts[1]);
    if (!begins_with(arguments, command.words)) continue;
    if (found == nullptr || command.words.size() > found->words.size()) found = &command;
  }
  if (found != nullptr) return *found;
  const std::string what =
      arguments.size() < 2 ? " needs a word" : " knows no '" + arguments[1] + "'";
  throw tools::Failure(arguments.front() + what + "; expected " + second_words);
}

std::string converted(std::string_view who, const Argument& argument, std::string_view text,
                      bool force) {
  if (force) return std::string(text);
  if (auto value = argument.accepts->convert(text)) return *std::move(value);
  throw tools::Failure(std::string(who) + ": " + std::string(argument.name) + " cannot be '" +
                       std::string(text) + "'; expected " + argument.accepts->expected());
}

std::string json_for(const Command& command, std::span<const std::string> arguments, bool force) {
  const auto values = arguments.subspan(words_of(command.words).size());
  if (values.size() < count(command.arguments, false) ||
      values.size() > count(command.arguments, true)) {
    const std::string expected = names_of(command.arguments);
    throw tools::Failure(std::string(command.words) + " has " + std::to_string(values.size()) +
                         " value(s); expected" + (expected.empty() ? " none" : expected));
  }
  const Json json = empty_object();
  for (const FixedMember& member : command.fixed) {
    if (!member.name.empty()) add_text(json.get(), member.name, member.text);
  }
  for (std::size_t i = 0; i < values.size(); ++i) {
    const Argument& argument = command.arguments[i];
    add_text(json.get(), argument.member, converted(command.words, argument, values[i], force));
  }
  return line_of(json.get());
}

}  // namespace nimbus::ctl
