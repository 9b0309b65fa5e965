#include "tools/ctl/accepts.h"

#include <algorithm>
#include <charconv>

#include "camera/codes.h"
#include "config/interface_codes.h"
#include "control/rc_map.h"
#include "display/region.h"
#include "tools/common/numbers.h"
#include "tools/ctl/value.h"

namespace nimbus::ctl {
namespace {

std::optional<std::string> as_it_is(std::string_view text, bool accepted) {
  if (!accepted) return std::nullopt;
  return std::string(text);
}

constexpr std::array<Word<std::string_view>, 8> kYesNoWords{{
    {"on", "1"},
    {"off", "0"},
    {"yes", "1"},
    {"no", "0"},
    {"true", "1"},
    {"false", "0"},
    {"1", "1"},
    {"0", "0"},
}};

std::optional<std::string> convert_fraction(std::string_view text) {
  const auto number = tools::parse_real(text);
  return as_it_is(text, number && *number >= 0.0 && *number <= 1.0);
}

constexpr double kLeastFNumber = 0.01;
constexpr double kMostFNumber = 327.67;  // hundredths in 16 bits

std::optional<std::string> convert_f_number(std::string_view text) {
  const auto number = tools::parse_real(text);
  return as_it_is(text, number && *number > 0.0 && *number <= kMostFNumber);
}

std::optional<std::string> convert_ev(std::string_view text) {
  constexpr std::uint8_t kUnknown = 0;
  const auto number = tools::parse_real(text);
  return as_it_is(text, number && code_of(kEvSteps, *number, kUnknown) != kUnknown);
}

std::string expected_ev() {
  std::string list;
  for (const auto& step : kEvSteps) append_word(list, text_of(Value(step.value)));
  return list;
}

/// How people write a time of the camera: fractions of a second as such.
std::string shutter_for_people(std::string_view text) {
  return text.ends_with('s') ? std::string(text) : "1/" + std::string(text);
}

std::optional<std::string> convert_shutter(std::string_view text) {
  for (const std::string_view known : kShutterTexts) {
    if (shutter_for_people(known) == text) return std::string(known);
  }
  return std::nullopt;
}

std::string expected_shutter() {
  std::string list;
  for (const std::string_view known : kShutterTexts) append_word(list, shutter_for_people(known));
  return list;
}

std::optional<std::string> convert_colour(std::string_view text) {
  constexpr std::uint8_t kUnknown = 255;
  return as_it_is(text, code_of(kColours, text, kUnknown) != kUnknown);
}

std::string expected_colour() {
  std::string list;
  for (const auto& colour : kColours) append_word(list, colour.value);
  return list;
}

std::optional<std::string> convert_rc_map(std::string_view text) {
  std::string_view rest = text;
  for (std::size_t channel = 0; channel < kRcChannels; ++channel) {
    const auto comma = rest.find(',');
    const std::string_view word = rest.substr(0, comma);
    if (!word.empty() && find_word(kRcFunctionWords, word) == nullptr) return std::nullopt;
    if (comma == std::string_view::npos) return std::string(text);
    rest.remove_prefix(comma + 1);
  }
  return std::nullopt;
}

std::string expected_rc_map() {
  return "up to " + std::to_string(kRcChannels) +
         " words, with commas between and nothing for a free channel, of " +
         kWordsOf<kRcFunctionWords>.expected();
}

std::optional<std::string> convert_interface(std::string_view text) {
  if (text == "none") return kNoInterfaceCode;
  if (interface_name(text) != nullptr) return std::string(text);
  const char* const code = interface_code(text);
  if (text.empty() || code == std::string_view(kNoInterfaceCode)) return std::nullopt;
  return code;
}

std::string expected_interface() { return "none, " + interface_names(", "); }

/// A list for people as a choice.
Shape listed(const std::string& list) {
  Shape shape{.kind = "choice"};
  for (std::size_t at = 0; at < list.size();) {
    const auto comma = std::min(list.find(", ", at), list.size());
    shape.choices.push_back(list.substr(at, comma - at));
    at = comma + 2;
  }
  return shape;
}

}  // namespace

constexpr Accepts kOnOff{kTranslated<kYesNoWords>.convert, [] { return std::string("on, off"); },
                         [] { return Shape{.kind = "switch"}; }};
constexpr Accepts kFraction{convert_fraction, [] { return std::string("a number from 0 to 1"); },
                            [] { return Shape{.kind = "number", .least = 0, .most = 1}; }};
constexpr Accepts kFNumber{
    convert_f_number, [] { return std::string("an f-number such as 2.8, up to 327.67"); },
    [] { return Shape{.kind = "number", .least = kLeastFNumber, .most = kMostFNumber}; }};
constexpr Accepts kEv{convert_ev, expected_ev, [] { return listed(expected_ev()); }};
constexpr Accepts kShutter{convert_shutter, expected_shutter,
                           [] { return listed(expected_shutter()); }};
constexpr Accepts kColour{convert_colour, expected_colour,
                          [] { return listed(expected_colour()); }};
constexpr Accepts kRcMap{convert_rc_map, expected_rc_map, [] {
                           Shape shape = choice_of(kRcFunctionWords);
                           shape.kind = "words";
                           shape.most = kRcChannels;
                           return shape;
                         }};
constexpr Accepts kInterfaceName{convert_interface, expected_interface,
                                 [] { return listed(expected_interface()); }};

std::string interface_names(std::string_view between) {
  std::string list;
  for (const InterfaceCode& row : kInterfaceCodes) {
    if (*row.name == '\0') continue;
    if (!list.empty()) list += between;
    list += row.name;
  }
  return list;
}

void append_word(std::string& list, std::string_view word) {
  if (!list.empty()) list += ", ";
  list += word;
}

std::optional<std::int64_t> whole_integer(std::string_view text) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

}  // namespace nimbus::ctl
