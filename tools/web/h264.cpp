#include "tools/web/h264.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "tools/web/bits.h"

namespace nimbus::web::h264 {
namespace {

// No level of the standard has pictures that are wider or higher.
constexpr std::uint32_t kLongestSide = 16'384;
constexpr std::uint32_t kMacroblock = 16;

bool has_chroma_format(std::uint8_t profile) {
  constexpr std::array<std::uint8_t, 13> kProfiles{100, 110, 122, 244, 44,  83, 86,
                                                   118, 128, 138, 139, 134, 135};
  return std::find(kProfiles.begin(), kProfiles.end(), profile) != kProfiles.end();
}

void skip_scaling_list(BitReader& in, unsigned size) {
  std::int32_t last = 8;
  std::int32_t next = 8;
  for (unsigned i = 0; i < size && in.ok(); ++i) {
    if (next != 0) next = (last + in.se() % 256 + 256) % 256;
    if (next != 0) last = next;
  }
}

void read_chroma_format(BitReader& in, Sps& sps) {
  sps.chroma_format = in.ue();
  if (sps.chroma_format == 3) sps.separate_colour_planes = in.flag();
  sps.luma_depth = in.ue() % 16 + 8;
  sps.chroma_depth = in.ue() % 16 + 8;
  in.skip(1);  // transform without loss
  if (!in.flag()) return;
  const unsigned lists = sps.chroma_format == 3 ? 12 : 8;
  for (unsigned i = 0; i < lists; ++i) {
    if (in.flag()) skip_scaling_list(in, i < 6 ? 16 : 64);
  }
}

void read_order(BitReader& in, Sps& sps) {
  sps.order_type = in.ue();
  if (sps.order_type == 0) {
    in.ue();
  } else if (sps.order_type == 1) {
    in.skip(1);
    in.se();
    in.se();
    const std::uint32_t cycle = in.ue();
    for (std::uint32_t i = 0; i < cycle && in.ok(); ++i) in.se();
  }
}

bool read_size(BitReader& in, Sps& sps) {
  const std::uint64_t columns = std::uint64_t{in.ue()} + 1;
  const std::uint64_t rows = std::uint64_t{in.ue()} + 1;
  sps.frames_only = in.flag();
  if (!sps.frames_only) in.skip(1);
  in.skip(1);
  const std::uint64_t width = columns * kMacroblock;
  const std::uint64_t height = rows * kMacroblock * (sps.frames_only ? 1 : 2);
  std::uint64_t cut_width = 0;
  std::uint64_t cut_height = 0;
  if (in.flag()) {
    const bool halved = sps.chroma_format == 1 || sps.chroma_format == 2;
    const unsigned across = halved ? 2 : 1;
    const unsigned down = (sps.chroma_format == 1 ? 2U : 1U) * (sps.frames_only ? 1 : 2);
    cut_width = (std::uint64_t{in.ue()} + in.ue()) * across;
    cut_height = (std::uint64_t{in.ue()} + in.ue()) * down;
  }
  if (width > kLongestSide || height > kLongestSide || cut_width >= width || cut_height >= height) {
    return false;
  }
  sps.width = static_cast<std::uint32_t>(width - cut_width);
  sps.height = static_cast<std::uint32_t>(height - cut_height);
  return true;
}

void skip_buffer_model(BitReader& in) {
  const std::uint32_t count = in.ue() % 32 + 1;
  in.skip(8);
  for (std::uint32_t i = 0; i < count; ++i) {
    in.ue();
    in.ue();
    in.skip(1);
  }
  in.skip(20);
}

void read_vui(BitReader& in, Sps& sps) {
  constexpr std::uint32_t kOwnAspect = 255;
  if (in.flag() && in.bits(8) == kOwnAspect) in.skip(32);
  if (in.flag()) in.skip(1);  // overscan
  if (in.flag()) {            // signal type, and colours
    in.skip(4);
    if (in.flag()) in.skip(24);
  }
  if (in.flag()) {  // where chroma samples are
    in.ue();
    in.ue();
  }
  if (in.flag()) in.skip(65);  // timing
  const bool nal = in.flag();
  if (nal) skip_buffer_model(in);
  const bool vcl = in.flag();
  if (vcl) skip_buffer_model(in);
  if (nal || vcl) in.skip(1);
  in.skip(1);  // picture structure
  sps.restriction_at = in.position();
  if (!in.flag()) return;
  in.skip(1);
  for (int i = 0; i < 4; ++i) in.ue();
  sps.reordered = in.ue();
  in.ue();
}

void write_restriction(BitWriter& out, const Sps& sps) {
  constexpr std::uint32_t kLongestVector = 15;  // the largest that is allowed
  out.flag(true);                               // there are restrictions
  out.flag(true);                               // vectors may leave the picture
  out.ue(0);
  out.ue(0);
  out.ue(kLongestVector);
  out.ue(kLongestVector);
  out.ue(0);  // pictures that are reordered
  out.ue(std::max<std::uint32_t>(sps.reference_frames, 1));
}

}  // namespace

bool is_slice(Unit unit) {
  const auto type = static_cast<std::uint8_t>(unit);
  return type >= 1 && type <= 5;
}

bool begins_picture(std::uint8_t header, std::uint8_t second) {
  const unsigned type = header & 0x1FU;
  // The first slice of a picture has macroblock 0, which is coded as a single bit of 1. What is
  // partitioned has its heads in partitions of type 2.
  if (type == 1 || type == 2 || type == 5) return (second & 0x80U) != 0;
  return (type >= 6 && type <= 9) || (type >= 14 && type <= 18);
}

std::optional<Sps> parse_sps(Bytes unit) {
  if (unit.size() < 5 || unit_of(unit) != Unit::sps) return std::nullopt;
  const Buffer content = unescaped(unit);
  BitReader in(content);
  Sps sps;
  in.skip(8);
  sps.profile = static_cast<std::uint8_t>(in.bits(8));
  sps.compatibility = static_cast<std::uint8_t>(in.bits(8));
  sps.level = static_cast<std::uint8_t>(in.bits(8));
  sps.id = in.ue();
  if (has_chroma_format(sps.profile)) read_chroma_format(in, sps);
  sps.frame_number_bits = in.ue() % 16 + 4;
  read_order(in, sps);
  sps.reference_frames = in.ue();
  sps.frame_numbers_may_lack = in.flag();
  constexpr std::uint32_t kMostIds = 32;
  constexpr std::uint32_t kMostReferences = 16;
  if (!read_size(in, sps) || sps.id >= kMostIds || sps.chroma_format > 3 ||
      sps.reference_frames > kMostReferences || sps.order_type > 2) {
    return std::nullopt;
  }
  sps.vui_at = in.position();
  sps.has_vui = in.flag();
  if (sps.has_vui) read_vui(in, sps);
  if (!in.ok()) return std::nullopt;
  return sps;
}

Buffer without_reordering(Bytes unit, const Sps& sps) {
  if (sps.reordered == 0U) return {unit.begin(), unit.end()};
  const Buffer content = unescaped(unit);
  BitWriter out;
  if (sps.has_vui) {
    out.copy(content, sps.restriction_at);
  } else {
    constexpr unsigned kNothingOfTheRest = 8;
    out.copy(content, sps.vui_at);
    out.flag(true);
    out.bits(0, kNothingOfTheRest);
  }
  write_restriction(out, sps);
  return escaped(out.finish());
}

std::string codec_of(const Sps& sps) {
  std::array<char, 16> text;
  std::snprintf(text.data(), text.size(), "avc1.%02x%02x%02x", sps.profile, sps.compatibility,
                sps.level);
  return text.data();
}

std::optional<std::uint32_t> pps_id(Bytes unit) {
  constexpr std::uint32_t kMost = 256;
  constexpr std::size_t kEnough = 16;
  const Buffer content = unescaped(unit.first(std::min(unit.size(), kEnough)));
  BitReader in(content);
  in.skip(8);
  const std::uint32_t id = in.ue();
  if (!in.ok() || id >= kMost) return std::nullopt;
  return id;
}

std::optional<Slice> parse_slice(Bytes unit, const Sps& sps) {
  constexpr std::size_t kEnough = 24;
  const Buffer content = unescaped(unit.first(std::min(unit.size(), kEnough)));
  BitReader in(content);
  Slice slice;
  in.skip(1);
  slice.reference = in.bits(2) != 0;
  in.skip(5);
  in.ue();
  slice.type = in.ue() % 5;
  in.ue();
  if (sps.separate_colour_planes) in.skip(2);
  slice.frame_number = in.bits(sps.frame_number_bits);
  if (!in.ok()) return std::nullopt;
  return slice;
}

bool has_recovery_point(Bytes unit) {
  constexpr std::uint8_t kRecoveryPoint = 6;
  constexpr std::uint8_t kMore = 255;
  const Buffer content = unescaped(unit);
  std::size_t at = 1;
  // Behind the last message stands one byte, the end of the unit.
  while (at + 2 < content.size()) {
    std::size_t type = 0;
    std::size_t size = 0;
    while (at < content.size() && content[at] == kMore) type += content[at++];
    if (at >= content.size()) return false;
    type += content[at++];
    while (at < content.size() && content[at] == kMore) size += content[at++];
    if (at >= content.size()) return false;
    size += content[at++];
    if (type == kRecoveryPoint) return true;
    at += size;
  }
  return false;
}

}  // namespace nimbus::web::h264
