// Bits, units, parameter sets, fragments.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "tests/unit/web_streams.h"
#include "tools/web/annex_b.h"
#include "tools/web/bits.h"
#include "tools/web/codec.h"
#include "tools/web/h264.h"
#include "tools/web/h265.h"
#include "tools/web/mp4.h"

namespace nimbus::web {
namespace {

// --- Bits --------------------------------------------------------------------------------------

TEST(WebBits, CodesAreReadAsTheyAreWritten) {
  BitWriter out;
  constexpr std::array<std::uint32_t, 9> kNumbers{0, 1, 2, 3, 7, 8, 255, 65'535, 2'000'000'000};
  for (const std::uint32_t number : kNumbers) out.ue(number);
  out.bits(5, 3);
  const Buffer bytes = out.finish();
  BitReader in(bytes);
  for (const std::uint32_t number : kNumbers) EXPECT_EQ(in.ue(), number);
  EXPECT_EQ(in.bits(3), 5U);
  EXPECT_TRUE(in.ok());
}

TEST(WebBits, SignedCodes) {
  BitWriter out;
  for (std::uint32_t code = 0; code < 7; ++code) out.ue(code);
  const Buffer bytes = out.finish();
  BitReader in(bytes);
  for (const std::int32_t number : {0, 1, -1, 2, -2, 3, -3}) EXPECT_EQ(in.se(), number);
}

TEST(WebBits, TheEndIsSeen) {
  const Buffer bytes{0x80};
  BitReader in(bytes);
  EXPECT_EQ(in.bits(8), 0x80U);
  EXPECT_TRUE(in.ok());
  EXPECT_EQ(in.bits(1), 0U);
  EXPECT_FALSE(in.ok());
  const Buffer zeros(20);
  BitReader endless(zeros);
  EXPECT_EQ(endless.ue(), 0U);
  EXPECT_FALSE(endless.ok());
}

TEST(WebBits, StartCodesAreKeptOut) {
  const Buffer content{1, 0, 0, 0, 0, 0, 1, 0, 0, 3, 0, 0, 4};
  const Buffer unit = escaped(content);
  EXPECT_EQ(find_start_code(unit, 0), unit.size());
  EXPECT_EQ(unescaped(unit), content);
}

TEST(WebAnnexB, UnitsAreFound) {
  const Buffer stream{9, 0, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x68, 2, 0, 0, 0, 0, 1, 0x65};
  const auto units = units_of(stream);
  ASSERT_EQ(units.size(), 3U);
  EXPECT_EQ(Buffer(units[0].begin(), units[0].end()), (Buffer{0x67, 1}));
  EXPECT_EQ(Buffer(units[1].begin(), units[1].end()), (Buffer{0x68, 2}));
  EXPECT_EQ(Buffer(units[2].begin(), units[2].end()), (Buffer{0x65}));
  EXPECT_TRUE(units_of(Buffer{0, 0, 1}).empty());
  EXPECT_TRUE(units_of(Buffer{}).empty());
  EXPECT_TRUE(units_of(Buffer{0, 0}).empty());
}

// --- Parameter sets ----------------------------------------------------------------------------

enum class Usage : std::uint8_t { none, unrestricted, reordering };

void write_buffer_model(BitWriter& out) {
  out.flag(true);
  out.ue(1);  // of two
  out.bits(0x23, 8);
  for (int i = 0; i < 2; ++i) {
    out.ue(1000);
    out.ue(2000);
    out.flag(false);
  }
  out.bits(0xB5A96, 20);
}

/// Usage information with all that there may be before the restrictions.
void write_usage(BitWriter& out, bool restricted) {
  out.flag(true);
  out.bits(255, 8);  // an aspect of its own
  for (const std::uint32_t side : {4U, 3U}) out.bits(side, 16);
  for (const bool overscan : {true, false}) out.flag(overscan);
  out.flag(true);
  out.bits(0xB, 4);
  out.flag(true);
  for (int i = 0; i < 3; ++i) out.bits(1, 8);  // colours
  out.flag(true);
  for (int i = 0; i < 2; ++i) out.ue(1);  // where chroma samples are
  out.flag(true);
  for (const std::uint32_t part : {0U, 1U, 0U, 50U}) out.bits(part, 16);  // timing
  out.flag(true);
  for (int i = 0; i < 2; ++i) write_buffer_model(out);
  out.flag(false);
  out.flag(true);  // picture structure
  out.flag(restricted);
  if (!restricted) return;
  out.flag(true);
  for (const std::uint32_t value : {2U, 1U, 10U, 10U, 2U, 4U}) out.ue(value);
}

/// Of eight scaling lists one, which stands for the usual one: its first step leads to zero.
void write_scaling_lists(BitWriter& out, bool there) {
  constexpr std::uint32_t kFromEightToZero = 16;
  out.flag(there);
  if (!there) return;
  out.flag(true);
  out.ue(kFromEightToZero);
  out.bits(0, 7);
}

/// One such as encoders in hardware write: cropped, and mostly without usage information.
Buffer hardware_sps(std::uint8_t profile = 100, Usage usage = Usage::none, bool scales = false,
                    std::uint32_t id = 0) {
  BitWriter out;
  out.bits(0x67, 8);
  out.bits(profile, 8);
  out.bits(0, 8);
  out.bits(40, 8);
  out.ue(id);
  if (profile == 100) {
    out.ue(1);
    out.ue(0);
    out.ue(0);
    out.flag(false);
    write_scaling_lists(out, scales);
  }
  out.ue(4);  // frame numbers of 8 bits
  out.ue(0);  // order type
  out.ue(5);
  out.ue(3);  // references
  out.flag(false);
  out.ue(119);
  out.ue(67);
  out.flag(true);
  out.flag(true);
  out.flag(true);  // cropped by 8 rows
  for (const std::uint32_t side : {0U, 0U, 0U, 4U}) out.ue(side);
  out.flag(usage != Usage::none);
  if (usage != Usage::none) write_usage(out, usage == Usage::reordering);
  return escaped(out.finish());
}

TEST(WebH264, AParameterSetOfAnEncoderInHardware) {
  for (const std::uint8_t profile : {std::uint8_t{66}, std::uint8_t{77}, std::uint8_t{100}}) {
    const Buffer unit = hardware_sps(profile);
    const auto sps = h264::parse_sps(unit);
    ASSERT_TRUE(sps);
    EXPECT_EQ(sps->width, 1920U);
    EXPECT_EQ(sps->height, 1080U);
    EXPECT_EQ(sps->frame_number_bits, 8U);
    EXPECT_EQ(sps->reference_frames, 3U);
    EXPECT_FALSE(sps->has_vui);
    EXPECT_FALSE(sps->reordered);
  }
  EXPECT_EQ(h264::codec_of(*h264::parse_sps(hardware_sps())), "avc1.640028");
}

TEST(WebH264, ScalingListsAreSkipped) {
  const auto sps = h264::parse_sps(hardware_sps(100, Usage::none, true));
  ASSERT_TRUE(sps);
  EXPECT_EQ(sps->width, 1920U);
  EXPECT_EQ(sps->height, 1080U);
}

/// The first bits of both are the same.
void expect_same_bits(BitReader& one, BitReader& other, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) EXPECT_EQ(one.bits(1), other.bits(1)) << i;
}

/// The restriction, and nothing behind it.
void expect_restriction(BitReader& in) {
  EXPECT_TRUE(in.flag());  // restrictions
  EXPECT_TRUE(in.flag());  // vectors over the edge
  EXPECT_EQ(in.ue(), 0U);
  EXPECT_EQ(in.ue(), 0U);
  EXPECT_EQ(in.ue(), 15U);
  EXPECT_EQ(in.ue(), 15U);
  EXPECT_EQ(in.ue(), 0U);  // reordered
  EXPECT_EQ(in.ue(), 3U);  // as many as are referred to
  EXPECT_TRUE(in.flag());  // the end
  EXPECT_TRUE(in.ok());
}

/// Bit by bit: what stood before stays, and the restriction follows.
TEST(WebH264, ASetThatDoesNotSaySoLearnsThatNothingIsReordered) {
  const Buffer unit = hardware_sps();
  const auto before = *h264::parse_sps(unit);
  const Buffer changed = h264::without_reordering(unit, before);
  const auto after = h264::parse_sps(changed);
  ASSERT_TRUE(after);
  EXPECT_EQ(after->reordered, 0U);
  EXPECT_EQ(after->width, before.width);
  EXPECT_EQ(after->height, before.height);
  EXPECT_EQ(after->vui_at, before.vui_at);
  const Buffer old_bits = unescaped(unit);
  const Buffer new_bits = unescaped(changed);
  BitReader old_one(old_bits);
  BitReader new_one(new_bits);
  expect_same_bits(old_one, new_one, before.vui_at);
  EXPECT_TRUE(new_one.flag());     // usage information
  EXPECT_EQ(new_one.bits(8), 0U);  // nothing but
  expect_restriction(new_one);
}

/// Whatever the usage information says besides, colours and buffers among it, is kept.
TEST(WebH264, OnlyTheRestrictionOfASetIsWritten) {
  for (const Usage usage : {Usage::unrestricted, Usage::reordering}) {
    const Buffer unit = hardware_sps(100, usage);
    const auto before = h264::parse_sps(unit);
    ASSERT_TRUE(before && before->has_vui);
    EXPECT_EQ(before->reordered, usage == Usage::reordering ? std::optional(2U) : std::nullopt);
    const Buffer changed = h264::without_reordering(unit, *before);
    ASSERT_TRUE(h264::parse_sps(changed));
    EXPECT_EQ(h264::parse_sps(changed)->restriction_at, before->restriction_at);
    const Buffer old_bits = unescaped(unit);
    const Buffer new_bits = unescaped(changed);
    BitReader old_one(old_bits);
    BitReader new_one(new_bits);
    expect_same_bits(old_one, new_one, before->restriction_at);
    expect_restriction(new_one);
  }
}

TEST(WebH264, ASetThatSaysSoStays) {
  const Buffer stream = recorded("zerolatency.h264");
  const Bytes unit = units_of(stream)[0];
  const auto sps = h264::parse_sps(unit);
  ASSERT_TRUE(sps);
  EXPECT_EQ(sps->reordered, 0U);
  EXPECT_EQ(h264::without_reordering(unit, *sps), Buffer(unit.begin(), unit.end()));
}

TEST(WebH264, RecordedSets) {
  struct Row {
    const char* name;
    std::uint32_t reordered;
    const char* codec;
  };
  for (const Row& row : {Row{"zerolatency.h264", 0, "avc1.42c00a"},
                         {"slices.h264", 0, "avc1.4d400a"},
                         {"b_pictures.h264", 2, "avc1.64000a"}}) {
    const Buffer stream = recorded(row.name);
    for (const Bytes unit : units_of(stream)) {
      if (h264::unit_of(unit) != h264::Unit::sps) continue;
      const auto sps = h264::parse_sps(unit);
      ASSERT_TRUE(sps) << row.name;
      EXPECT_EQ(sps->width, 64U);
      EXPECT_EQ(sps->height, 48U);
      EXPECT_EQ(sps->reordered, row.reordered) << row.name;
      EXPECT_EQ(h264::codec_of(*sps), row.codec);
    }
  }
}

/// Where there are B pictures the set stays as it is, from the next key picture on.
TEST(WebH264, BPicturesAreLeftInOrder) {
  const auto codec = make_h264();
  const auto pictures = access_units(recorded("b_pictures.h264"), Coding::h264);
  for (const Buffer& picture : pictures) static_cast<void>(codec->look(picture));
  static_cast<void>(codec->look(pictures[1]));  // before a key picture may stand one that is none
  ASSERT_TRUE(codec->look(pictures[0]).key);
  const Buffer sets = codec->parameter_sets();
  bool any = false;
  for (const Bytes unit : units_of(sets)) {
    if (h264::unit_of(unit) != h264::Unit::sps) continue;
    any = true;
    EXPECT_EQ(h264::parse_sps(unit)->reordered, 2U);
  }
  EXPECT_TRUE(any);
}

/// Every cut of a set is refused or read, never followed beyond its end.
TEST(WebH264, CutSetsAreNoSets) {
  const Buffer unit = hardware_sps();
  for (std::size_t size = 0; size + 1 < unit.size(); ++size) {
    EXPECT_FALSE(h264::parse_sps(Bytes(unit).first(size))) << size;
  }
  Buffer sps(64);
  sps[0] = 0x67;
  EXPECT_FALSE(h264::parse_sps(sps));
}

/// A picture parameter set, as long as it is wanted.
Buffer pps(std::uint32_t id, std::size_t size = 0) {
  BitWriter out;
  out.bits(0x68, 8);
  out.ue(id);
  out.ue(0);
  Buffer unit = escaped(out.finish());
  unit.resize(std::max(unit.size(), size), 0x55);
  return unit;
}

/// How many sets a configuration counts from there on; `at` is behind them then.
std::size_t count_sets(const Buffer& box, std::size_t& at, unsigned mask) {
  const std::size_t count = box.at(at++) & mask;
  for (std::size_t i = 0; i < count; ++i) at += 2U + 256U * box.at(at) + box.at(at + 1);
  return count;
}

/// More cannot be counted in a browser's configuration.
TEST(WebH264, SetsAreAsManyAsCanBeCounted) {
  Buffer sets;
  for (std::uint32_t id = 0; id < 32; ++id) {
    append_unit(sets, hardware_sps(66, Usage::none, false, id));
  }
  for (std::uint32_t id = 0; id < 256; ++id) append_unit(sets, pps(id));
  const auto codec = make_h264();
  static_cast<void>(codec->look(sets));
  Epoch epoch;
  codec->describe(epoch);
  const Buffer& all = epoch.initialisation;
  constexpr std::array<std::uint8_t, 4> kName{'a', 'v', 'c', 'C'};
  const auto box = std::search(all.begin(), all.end(), kName.begin(), kName.end());
  ASSERT_NE(box, all.end());
  auto at = static_cast<std::size_t>(box - all.begin());
  const std::size_t end = at - 4 + 256U * all[at - 2] + all[at - 1];
  at += 4 + 5;
  EXPECT_EQ(count_sets(all, at, 0x1F), 31U);
  EXPECT_EQ(count_sets(all, at, 0xFF), 255U);
  EXPECT_EQ(at, end);
}

TEST(WebH264, SetsThatAreTooLongAreLeftOut) {
  Buffer sps = hardware_sps(66);
  Buffer sets;
  append_unit(sets, sps);
  append_unit(sets, pps(0));
  append_unit(sets, pps(1, 4096));
  const auto codec = make_h264();
  static_cast<void>(codec->look(sets));
  const Buffer before = codec->parameter_sets();
  EXPECT_GT(before.size(), 4096U);
  sps.resize(4097, 0x55);
  sets.clear();
  append_unit(sets, sps);
  append_unit(sets, pps(1, 4097));
  append_unit(sets, pps(2, 4'000'000));
  const Look look = codec->look(sets);
  EXPECT_TRUE(look.units.empty());
  EXPECT_FALSE(look.has_sets);
  EXPECT_EQ(codec->parameter_sets(), before);
}

TEST(WebH264, RecoveryPoints) {
  EXPECT_TRUE(h264::has_recovery_point(Buffer{6, 6, 1, 0xC4, 0x80}));
  EXPECT_TRUE(h264::has_recovery_point(Buffer{6, 5, 2, 1, 1, 6, 1, 0xC4, 0x80}));
  EXPECT_FALSE(h264::has_recovery_point(Buffer{6, 5, 2, 1, 1, 0x80}));
  EXPECT_FALSE(h264::has_recovery_point(Buffer{6, 255, 255}));
  EXPECT_FALSE(h264::has_recovery_point(Buffer{6}));
}

TEST(WebH265, RecordedSets) {
  const Buffer stream = recorded("hevc.h265");
  for (const Bytes unit : units_of(stream)) {
    if (h265::unit_of(unit) != h265::Unit::sps) continue;
    const auto sps = h265::parse_sps(unit);
    ASSERT_TRUE(sps);
    EXPECT_EQ(sps->width, 64U);
    EXPECT_EQ(sps->height, 48U);
    EXPECT_EQ(sps->luma_depth, 8U);
    EXPECT_EQ(h265::codec_of(*sps), "hvc1.1.6.L30.90");
    for (std::size_t size = 0; size < 20; ++size) EXPECT_FALSE(h265::parse_sps(unit.first(size)));
    return;
  }
  FAIL() << "no set";
}

TEST(WebH265, SetsThatAreTooLongAreLeftOut) {
  const Buffer stream = recorded("hevc.h265");
  const auto codec = make_h265();
  static_cast<void>(codec->look(stream));
  const Buffer before = codec->parameter_sets();
  ASSERT_FALSE(before.empty());
  Buffer sets;
  for (const Bytes unit : units_of(before)) {
    Buffer long_one(unit.begin(), unit.end());
    long_one.resize(4097, 0x55);
    append_unit(sets, long_one);
  }
  EXPECT_TRUE(codec->look(sets).units.empty());
  EXPECT_EQ(codec->parameter_sets(), before);
}

/// Its last rows are cut off: they are counted by two, as its colours have them.
TEST(WebH265, ASetOfAHighDefinitionPicture) {
  BitWriter out;
  out.bits(0x4201, 16);
  out.bits(1, 8);  // one layer, nested
  for (int i = 0; i < 12; ++i) out.bits(1, 8);
  for (const std::uint32_t code : {0U, 1U, 1920U, 1088U}) out.ue(code);  // id, colours, size
  out.flag(true);
  for (const std::uint32_t code : {0U, 0U, 0U, 4U, 0U, 0U})
    out.ue(code);  // what is cut off, depths
  const auto sps = h265::parse_sps(escaped(out.finish()));
  ASSERT_TRUE(sps);
  EXPECT_EQ(sps->width, 1920U);
  EXPECT_EQ(sps->height, 1080U);
}

/// A picture of one slice, which has that number of eight bits.
Buffer picture_with_number(std::uint8_t header, std::uint32_t type, std::uint32_t number) {
  BitWriter out;
  out.bits(header, 8);
  for (const std::uint32_t code : {0U, type, 0U}) out.ue(code);
  out.bits(number, 8);
  out.bits(0, 16);
  Buffer picture;
  append_unit(picture, escaped(out.finish()));
  return picture;
}

TEST(WebCodec, FrameNumbersGoRound) {
  constexpr std::uint32_t kP = 0;
  constexpr std::uint32_t kI = 2;
  const auto codec = make_h264();
  Buffer first;
  append_unit(first, hardware_sps());
  append(first, picture_with_number(0x65, kI, 0));
  EXPECT_TRUE(codec->look(first).key);
  EXPECT_TRUE(codec->look(picture_with_number(0x41, kP, 1)).follows);
  EXPECT_FALSE(codec->look(picture_with_number(0x41, kP, 255)).follows);
  EXPECT_TRUE(codec->look(picture_with_number(0x41, kP, 0)).follows);
}

TEST(WebCodec, KeyPicturesAndOthers) {
  const auto codec = make_h264();
  int at = 0;
  for (const Buffer& picture : access_units(recorded("slices.h264"), Coding::h264)) {
    const Look look = codec->look(picture);
    EXPECT_TRUE(look.picture);
    EXPECT_EQ(look.key, at % 5 == 0) << at;
    EXPECT_EQ(look.follows, at % 5 != 0) << at;
    // Delimiters are left out; every unit is behind a start code of four bytes.
    for (const Bytes unit : units_of(look.units)) {
      EXPECT_NE(h264::unit_of(unit), h264::Unit::delimiter);
    }
    ++at;
  }
}

// --- Fragments ---------------------------------------------------------------------------------

std::uint32_t number_at(const Buffer& bytes, std::size_t at) {
  return std::uint32_t{bytes[at]} << 24U | std::uint32_t{bytes[at + 1]} << 16U |
         std::uint32_t{bytes[at + 2]} << 8U | bytes[at + 3];
}

/// Boxes follow each other to the very end.
void expect_boxes(const Buffer& bytes, const std::vector<std::string>& types) {
  std::size_t at = 0;
  for (const std::string& type : types) {
    ASSERT_LE(at + 8, bytes.size());
    EXPECT_EQ(std::string(bytes.begin() + static_cast<std::ptrdiff_t>(at) + 4,
                          bytes.begin() + static_cast<std::ptrdiff_t>(at) + 8),
              type);
    at += number_at(bytes, at);
  }
  EXPECT_EQ(at, bytes.size());
}

TEST(WebMp4, BoxesAreWhole) {
  expect_boxes(mp4::initialisation({"avc1", "avcC", {1, 2, 3}, 640, 360}), {"ftyp", "moov"});
  Buffer fragment;
  mp4::append_fragment_head(fragment, 1, {1'000'000'000'000, 40'000}, true, 5);
  EXPECT_EQ(number_at(fragment, fragment.size() - 8), 8U + 5U);
  fragment.resize(fragment.size() + 5);
  expect_boxes(fragment, {"moof", "mdat"});
  // Where the data is, from the start of the fragment.
  constexpr std::size_t kRun = 8 + 16 + 8 + 16 + 20;
  EXPECT_EQ(number_at(fragment, kRun + 16), fragment.size() - 5);
  // When it begins, in more than 32 bits.
  EXPECT_EQ(number_at(fragment, kRun - 8), 1'000'000'000'000U >> 32U);
  EXPECT_EQ(number_at(fragment, kRun - 4), 1'000'000'000'000U & 0xFFFF'FFFFU);
}

/// What a player may begin with, and what it may not.
TEST(WebMp4, KeyPicturesSayThatTheyAre) {
  constexpr std::size_t kFromTheEnd = 4 + 8;  // the head of the data stands behind them
  for (const auto& [key, flags] : {std::pair{true, 0x0200'0000U}, std::pair{false, 0x0101'0000U}}) {
    Buffer fragment;
    mp4::append_fragment_head(fragment, 1, {0, 40'000}, key, 5);
    EXPECT_EQ(number_at(fragment, fragment.size() - kFromTheEnd), flags);
  }
}

TEST(WebPicture, LengthsStandInPlaceOfStartCodes) {
  auto picture = std::make_shared<Picture>();
  append_unit(picture->units, Buffer{0x67, 1});
  append_unit(picture->units, Buffer{0x65, 2, 3});
  const SharedBytes bytes = Picture::body(picture, Form::fmp4);
  EXPECT_EQ(*bytes, (Buffer{0, 0, 0, 2, 0x67, 1, 0, 0, 0, 3, 0x65, 2, 3}));
  EXPECT_EQ(Picture::body(picture, Form::fmp4), bytes);  // made once
  EXPECT_EQ(*Picture::body(picture, Form::raw), picture->units);
}

}  // namespace
}  // namespace nimbus::web
