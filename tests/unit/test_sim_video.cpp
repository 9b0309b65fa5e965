#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support.h"
#include "tools/common/failure.h"
#include "tools/sim/video.h"

namespace nimbus::sim {
namespace {

using Stream = std::vector<std::uint8_t>;

constexpr std::uint8_t kSlice = 0x41;
constexpr std::uint8_t kKeySlice = 0x65;
constexpr std::uint8_t kInformation = 0x06;
constexpr std::uint8_t kSequenceSet = 0x67;
constexpr std::uint8_t kPictureSet = 0x68;
constexpr std::uint8_t kDelimiter = 0x09;
constexpr std::uint8_t kFirst = 0x88;  // starts a slice with macroblock 0
constexpr std::uint8_t kLater = 0x42;

/// Appends a unit, and returns where it starts.
std::size_t unit(Stream& stream, std::uint8_t header, std::uint8_t second, std::size_t size,
                 bool long_start = false) {
  const std::size_t at = stream.size();
  if (long_start) stream.push_back(0);
  stream.insert(stream.end(), {0, 0, 1, header, second});
  stream.insert(stream.end(), size, 0xAB);
  return at;
}

/// The pieces one after the other.
Stream joined(const Stream& stream, const Cuts& cuts) {
  Stream whole;
  for (const Cut& cut : cuts.cuts) {
    const auto part = Bytes(stream).subspan(cut.at, cut.size);
    whole.insert(whole.end(), part.begin(), part.end());
  }
  return whole;
}

TEST(Pictures, EachSliceThatStartsOne) {
  Stream stream;
  const std::size_t first = unit(stream, kKeySlice, kFirst, 40);
  const std::size_t second = unit(stream, kSlice, kFirst, 7);
  unit(stream, kSlice, kLater, 30);
  const std::size_t third = unit(stream, kSlice, kFirst, 1, true);
  EXPECT_EQ(find_pictures(stream), (std::vector{first, second, third}));
}

TEST(Pictures, WhatPrecedesASliceBelongsToIt) {
  Stream stream;
  unit(stream, kSequenceSet, 0x42, 10, true);
  unit(stream, kPictureSet, 0xCE, 3);
  unit(stream, kInformation, 0x05, 20);
  unit(stream, kKeySlice, kFirst, 100);
  unit(stream, kKeySlice, kLater, 100);
  const std::size_t delimiter = unit(stream, kDelimiter, 0xF0, 0, true);
  unit(stream, kSlice, kFirst, 50, true);
  const std::size_t sets = unit(stream, kSequenceSet, 0x42, 10);
  unit(stream, kKeySlice, kFirst, 50);
  EXPECT_EQ(find_pictures(stream), (std::vector<std::size_t>{0, delimiter, sets}));
}

TEST(Pictures, NoneInOtherBytes) {
  EXPECT_TRUE(find_pictures({}).empty());
  EXPECT_TRUE(find_pictures(Stream(1000, 0)).empty());
  EXPECT_TRUE(find_pictures(Stream{0, 0, 1, kSlice}).empty());
}

TEST(Cuts, ByBitrateInEqualSteps) {
  Stream stream(10'000);
  for (std::size_t i = 0; i < stream.size(); ++i) stream[i] = static_cast<std::uint8_t>(i * 7);
  const Cuts cuts = cut_stream(stream, 1000, BitsPerSecond{80'000});
  EXPECT_EQ(cuts.length, 1);
  ASSERT_EQ(cuts.cuts.size(), 10U);
  for (std::size_t n = 0; n < 10; ++n) {
    EXPECT_EQ(cuts.cuts[n].size, 1000U);
    EXPECT_NEAR(cuts.cuts[n].due, static_cast<double>(n) / 10, 1e-9);
  }
  EXPECT_EQ(joined(stream, cuts), stream);
}

TEST(Cuts, TheLastOneIsShorter) {
  const Stream stream(2501, 1);
  const Cuts cuts = cut_stream(stream, 1000, BitsPerSecond{1000});
  ASSERT_EQ(cuts.cuts.size(), 3U);
  EXPECT_EQ(cuts.cuts[2].size, 501U);
  EXPECT_EQ(joined(stream, cuts), stream);
}

TEST(Cuts, ByPicturesSpreadOverTheirTime) {
  Stream stream;
  unit(stream, kKeySlice, kFirst, 3500 - 5);
  unit(stream, kSlice, kFirst, 200);
  const Cuts cuts = cut_stream(stream, 1000, FramesPerSecond{10});
  EXPECT_EQ(cuts.length, 0.2);
  ASSERT_EQ(cuts.cuts.size(), 5U);
  for (std::size_t n = 0; n < 4; ++n) {
    EXPECT_NEAR(cuts.cuts[n].due, 0.025 * static_cast<double>(n), 1e-9);
  }
  EXPECT_EQ(cuts.cuts[3].size, 500U);
  EXPECT_EQ(cuts.cuts[4].at, 3500U);
  EXPECT_NEAR(cuts.cuts[4].due, 0.1, 1e-9);
  EXPECT_EQ(joined(stream, cuts), stream);
}

TEST(Cuts, PicturesMustBeThere) {
  EXPECT_THROW(static_cast<void>(cut_stream(Stream(100, 0xFF), 10, FramesPerSecond{25})),
               tools::Failure);
}

// --- Files -------------------------------------------------------------------------------------

class Files : public testing::Test {
 protected:
  std::filesystem::path folder = std::filesystem::temp_directory_path();
  std::filesystem::path path = folder / "test_sim_video.h264";
  void TearDown() override { std::filesystem::remove(path); }

  /// Everything that is due until then.
  static std::string due(VideoFile& file, double seconds) {
    std::string bytes;
    while (const auto datagram = file.next(seconds)) {
      bytes.append(datagram->begin(), datagram->end());
    }
    return bytes;
  }
};

TEST_F(Files, OnceOrAgainAndAgain) {
  test::write_file(path, "abcdefghij");
  VideoFile once(path, 3, BitsPerSecond{80}, false);
  EXPECT_EQ(due(once, 0), "abc");
  EXPECT_EQ(due(once, 0), "");
  EXPECT_FALSE(once.ended());
  EXPECT_EQ(due(once, 100), "defghij");
  EXPECT_TRUE(once.ended());
  EXPECT_EQ(due(once, 200), "");

  VideoFile loop(path, 3, BitsPerSecond{80}, true);
  EXPECT_EQ(due(loop, 0.9), "abcdefghij");
  EXPECT_FALSE(loop.ended());
  EXPECT_EQ(due(loop, 0.99), "");
  EXPECT_EQ(due(loop, 1), "abc");
  EXPECT_EQ(due(loop, 2.9), "defghijabcdefghij");
}

TEST_F(Files, WrongOnesAreNamed) {
  const auto failure_of = [this](const Pace& pace) -> std::string {
    try {
      const VideoFile file(path, 1400, pace, true);
    } catch (const tools::Failure& failure) {
      return failure.what();
    }
    return "";
  };
  const std::string name = path.string();
  EXPECT_EQ(failure_of(BitsPerSecond{1}), "cannot read " + name + ": No such file or directory");
  test::write_file(path, "");
  EXPECT_EQ(failure_of(BitsPerSecond{1}), name + " is empty; expected an H.264 byte stream");
  test::write_file(path, "text");
  EXPECT_EQ(failure_of(BitsPerSecond{1}), "");
  EXPECT_TRUE(failure_of(FramesPerSecond{25}).starts_with(name + ": no pictures found; expected"));
  path = folder;
  EXPECT_EQ(failure_of(BitsPerSecond{1}), "cannot read " + path.string() + ": Is a directory");
  path = folder / "test_sim_video.h264";
}

}  // namespace
}  // namespace nimbus::sim
