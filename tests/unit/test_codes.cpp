#include "camera/codes.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <set>
#include <string>
#include <string_view>

namespace nimbus {
namespace {

constexpr std::uint8_t kUnknown = 0xEE;

/// Each code stands for one value, and each value has one code.
template <typename Table>
void expect_one_to_one(const Table& table) {
  for (const auto& row : table) {
    EXPECT_EQ(code_of(table, row.value, kUnknown), row.code);
    for (const auto& other : table) EXPECT_EQ(row.code == other.code, &row == &other);
  }
}

TEST(Codes, AreOneToOne) {
  expect_one_to_one(kColours);
  expect_one_to_one(kEvSteps);
  expect_one_to_one(kIsoValues);
  expect_one_to_one(kResolutions);
  expect_one_to_one(kFrameRates);
  expect_one_to_one(kWhiteBalances);
  expect_one_to_one(kCameraModeNames);
  expect_one_to_one(kExposureModeNames);
  expect_one_to_one(kPhotoFormatNames);
}

TEST(Codes, UnknownCodesAreZeroOrEmpty) {
  EXPECT_EQ(value_of(kColours, 2), "");
  EXPECT_EQ(value_of(kColours, 255), "");
  EXPECT_EQ(value_of(kEvSteps, 6), 0.0);
  EXPECT_EQ(value_of(kEvSteps, 26), 0.0);
  EXPECT_EQ(value_of(kIsoValues, 10), 0);
  EXPECT_EQ(value_of(kResolutions, 0), Resolution{});
}

TEST(Codes, UnknownValues) {
  EXPECT_EQ(code_of(kIsoValues, 150, kUnknown), kUnknown);
  EXPECT_EQ(code_of(kFrameRates, 29, kUnknown), kUnknown);
  EXPECT_EQ(code_of(kResolutions, Resolution{1280, 1080, "720p"}, kUnknown), kUnknown);
  EXPECT_EQ(code_of(kResolutions, Resolution{720, 1280, "720p"}, kUnknown), kUnknown);
  EXPECT_EQ(code_of(kColours, std::string_view("sepia"), kUnknown), kUnknown);
  EXPECT_EQ(code_of(kColours, std::string_view("ar"), kUnknown), kUnknown);
  EXPECT_EQ(code_of(kColours, std::string_view("art\0", 4), kUnknown), kUnknown);
}

TEST(Codes, IsoValuesDouble) {
  for (const auto& [iso, code, word] : kIsoValues) {
    EXPECT_EQ(iso, code == 0 ? 0 : 25 << (code - 1));
    EXPECT_TRUE(word.empty() || word == (code == 0 ? "auto" : std::to_string(iso)));
  }
}

TEST(Codes, EvStepsAreThirds) {
  for (const auto& [value, code] : kEvSteps) EXPECT_EQ(code, std::lround(16 + 3 * value)) << value;
}

TEST(Codes, EvStepsMatchExactly) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  for (const auto& [value, code] : kEvSteps) {
    std::array<char, 8> text;
    std::snprintf(text.data(), text.size(), "%.1f", value);
    EXPECT_EQ(code_of(kEvSteps, std::strtod(text.data(), nullptr), kUnknown), code);
    EXPECT_EQ(code_of(kEvSteps, std::nextafter(value, kInfinity), kUnknown), kUnknown) << value;
    EXPECT_EQ(code_of(kEvSteps, std::nextafter(value, -kInfinity), kUnknown), kUnknown) << value;
  }
  EXPECT_EQ(code_of(kEvSteps, -0.0, kUnknown), 16);
  EXPECT_EQ(code_of(kEvSteps, double{0.3F}, kUnknown), kUnknown);
  EXPECT_EQ(code_of(kEvSteps, std::numeric_limits<double>::quiet_NaN(), kUnknown), kUnknown);
  EXPECT_EQ(code_of(kEvSteps, kInfinity, kUnknown), kUnknown);
}

// --- Shutter -----------------------------------------------------------------------------------

/// The exposure in seconds that a shutter text means.
double seconds_of(const std::string& text) {
  const double number = std::strtod(text.c_str(), nullptr);
  return text.ends_with('s') ? number : 1 / number;
}

/// The text that a shutter code means.
std::string text_of(const ShutterCode& code) {
  const unsigned word = code[0] | static_cast<unsigned>(code[1]) << 8;
  std::string text = std::to_string(word & 0x7FFFU);
  if (code[2] != 0) text += "." + std::to_string(code[2]);
  return (word & 0x8000U) != 0 ? text : text + "s";
}

TEST(ShutterCodes, SayTheirTexts) {
  for (const std::string_view text : kShutterTexts) EXPECT_EQ(text_of(shutter_code(text)), text);
}

TEST(ShutterCodes, LongestExposureFirst) {
  double before = std::numeric_limits<double>::infinity();
  for (const std::string_view text : kShutterTexts) {
    const double seconds = seconds_of(std::string(text));
    EXPECT_LT(seconds, before) << text;
    before = seconds;
  }
}

TEST(ShutterCodes, OtherTextsAreZeros) {
  const std::set<std::string> known(kShutterTexts.begin(), kShutterTexts.end());
  std::set<std::string> others{"", "s", "0", "-1", "1/100", ".", ".5", "99999999999999999999"};
  for (const std::string& word : known) {
    others.insert({word + "0", word + " ", " " + word, word + "s", word + ".", word + ".0",
                   word + '\0', word.substr(0, word.size() - 1), "0" + word, "-" + word});
  }
  for (const std::string& text : others) {
    if (known.contains(text)) continue;
    EXPECT_EQ(shutter_code(text), ShutterCode{}) << text;
  }
}

}  // namespace
}  // namespace nimbus
