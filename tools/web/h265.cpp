#include "tools/web/h265.h"

#include <cstdio>

#include "tools/web/bits.h"

namespace nimbus::web::h265 {
namespace {

constexpr std::uint32_t kLongestSide = 16'384;

/// The general part is kept; those of further layers are skipped.
void read_profile(BitReader& in, Sps& sps) {
  for (std::uint8_t& byte : sps.profile) byte = static_cast<std::uint8_t>(in.bits(8));
  std::array<bool, 8> profile{};
  std::array<bool, 8> level{};
  const unsigned further = sps.layers - 1;
  for (unsigned i = 0; i < further; ++i) {
    profile[i] = in.flag();
    level[i] = in.flag();
  }
  if (further > 0) in.skip(2 * (8 - further));
  for (unsigned i = 0; i < further; ++i) {
    if (profile[i]) in.skip(88);
    if (level[i]) in.skip(8);
  }
}

bool read_size(BitReader& in, Sps& sps) {
  std::uint64_t width = in.ue();
  std::uint64_t height = in.ue();
  if (in.flag()) {
    const unsigned across = sps.chroma_format == 1 || sps.chroma_format == 2 ? 2 : 1;
    const unsigned down = sps.chroma_format == 1 ? 2 : 1;
    const std::uint64_t columns = (std::uint64_t{in.ue()} + in.ue()) * across;
    const std::uint64_t rows = (std::uint64_t{in.ue()} + in.ue()) * down;
    if (columns >= width || rows >= height) return false;
    width -= columns;
    height -= rows;
  }
  if (width == 0 || height == 0 || width > kLongestSide || height > kLongestSide) return false;
  sps.width = static_cast<std::uint32_t>(width);
  sps.height = static_cast<std::uint32_t>(height);
  return true;
}

std::uint32_t reversed(std::uint32_t bits) {
  std::uint32_t result = 0;
  for (unsigned i = 0; i < 32; ++i) result = result << 1U | (bits >> i & 1U);
  return result;
}

}  // namespace

bool is_slice(Unit unit) { return unit < Unit::vps; }

bool is_key(Unit unit) { return unit >= Unit::first_key && unit <= Unit::last_key; }

bool begins_picture(std::uint8_t header, std::uint8_t third) {
  const unsigned type = header >> 1U & 0x3FU;
  if (type < 32) return (third & 0x80U) != 0;
  return type <= 35 || type == 39 || (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
}

std::optional<Sps> parse_sps(Bytes unit) {
  if (unit.size() < 15 || unit_of(unit) != Unit::sps) return std::nullopt;
  const Buffer content = unescaped(unit);
  BitReader in(content);
  Sps sps;
  in.skip(16 + 4);
  sps.layers = in.bits(3) + 1;
  sps.nested = in.flag();
  read_profile(in, sps);
  const std::uint32_t id = in.ue();
  sps.chroma_format = in.ue();
  if (sps.chroma_format == 3) in.skip(1);
  if (sps.layers > 7 || id > 15 || sps.chroma_format > 3 || !read_size(in, sps)) {
    return std::nullopt;
  }
  sps.luma_depth = in.ue() % 16 + 8;
  sps.chroma_depth = in.ue() % 16 + 8;
  if (!in.ok()) return std::nullopt;
  return sps;
}

std::string codec_of(const Sps& sps) {
  constexpr std::size_t kLevel = 11;
  constexpr std::array<const char*, 4> kSpaces{"", "A", "B", "C"};
  const auto& bytes = sps.profile;
  const std::uint32_t compatible = std::uint32_t{bytes[1]} << 24U | std::uint32_t{bytes[2]} << 16U |
                                   std::uint32_t{bytes[3]} << 8U | bytes[4];
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "hvc1.%s%u.%X.%c%u", kSpaces.at(bytes[0] >> 6U),
                bytes[0] & 0x1FU, reversed(compatible), (bytes[0] & 0x20U) != 0 ? 'H' : 'L',
                bytes[kLevel]);
  std::string codec = text.data();
  // The bytes of restrictions, without the zeros at their end.
  std::size_t last = kLevel;
  while (last > 5 && bytes[last - 1] == 0) --last;
  for (std::size_t i = 5; i < last; ++i) {
    std::snprintf(text.data(), text.size(), ".%X", bytes[i]);
    codec += text.data();
  }
  return codec;
}

}  // namespace nimbus::web::h265
