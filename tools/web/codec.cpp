#include "tools/web/codec.h"

#include <array>
#include <map>
#include <optional>

#include "tools/web/annex_b.h"
#include "tools/web/h264.h"
#include "tools/web/h265.h"

namespace nimbus::web {
namespace {

using Sets = std::map<std::uint32_t, Buffer>;

// Of those that cameras write, sets with all scaling lists are the longest: 480 numbers of up to 17
// bits in H.264, 992 in H.265. What is longer is nobody's, and left out.
constexpr std::size_t kLongestSet = 4096;

// What a browser's configuration can count.
constexpr std::size_t kMostSps = 31;
constexpr std::size_t kMostPps = 255;

/// Keeps a set, unless there are too many.
bool keep(Sets& sets, std::uint32_t id, Bytes set, std::size_t most) {
  if (sets.size() >= most && !sets.contains(id)) return false;
  sets[id].assign(set.begin(), set.end());
  return true;
}

void append_all(Buffer& out, const Sets& sets) {
  for (const auto& [id, set] : sets) append_unit(out, set);
}

/// What samples are like, in the low bits of three bytes.
template <typename Sps>
void append_samples(Buffer& box, const Sps& sps) {
  box.push_back(static_cast<std::uint8_t>(0xFC | sps.chroma_format));
  box.push_back(static_cast<std::uint8_t>(0xF8 | (sps.luma_depth - 8)));
  box.push_back(static_cast<std::uint8_t>(0xF8 | (sps.chroma_depth - 8)));
}

// --- H.264 -------------------------------------------------------------------------------------

class H264 final : public Codec {
 public:
  Look look(Bytes access_unit) override;
  [[nodiscard]] Buffer parameter_sets() const override;
  void describe(Epoch& epoch) const override;

 private:
  /// What the slices of one picture have shown.
  struct Slices {
    bool any = false;
    bool key = false;
    bool only_intra = true;
    bool recovery = false;
  };
  void take_sps(Bytes unit, Look& look);
  void take_slice(Bytes unit, Slices& slices, Look& look);
  [[nodiscard]] bool follows(const h264::Slice& slice) const;

  Sets sps_;
  Sets pps_;
  std::optional<h264::Sps> active_;
  std::optional<std::uint32_t> last_reference_;  // its frame number
  bool reorders_ = false;                        // there have been B pictures
};

bool is_set(h264::Unit type) { return type == h264::Unit::sps || type == h264::Unit::pps; }

Look H264::look(Bytes access_unit) {
  using h264::Unit;
  Look look;
  look.units.reserve(access_unit.size() + 64);
  Slices slices;
  for (const Bytes unit : units_of(access_unit)) {
    const Unit type = h264::unit_of(unit);
    if (type == Unit::delimiter || type == Unit::filler) continue;
    if (is_set(type) && unit.size() > kLongestSet) continue;
    if (type == Unit::sps) {
      take_sps(unit, look);
      continue;
    }
    if (type == Unit::pps) {
      const auto id = h264::pps_id(unit);
      if (id && !keep(pps_, *id, unit, kMostPps)) continue;
    } else if (type == Unit::sei) {
      slices.recovery = slices.recovery || h264::has_recovery_point(unit);
    } else if (h264::is_slice(type)) {
      take_slice(unit, slices, look);
    }
    append_unit(look.units, unit);
  }
  look.picture = slices.any;
  look.key =
      slices.any && (slices.key || (slices.only_intra && (slices.recovery || look.has_sets)));
  return look;
}

void H264::take_sps(Bytes unit, Look& look) {
  const auto sps = h264::parse_sps(unit);
  if (!sps) return;
  const Buffer known =
      reorders_ ? Buffer(unit.begin(), unit.end()) : h264::without_reordering(unit, *sps);
  if (!keep(sps_, sps->id, known, kMostSps)) return;
  active_ = sps;
  look.has_sets = true;
  append_unit(look.units, known);
}

void H264::take_slice(Bytes unit, Slices& slices, Look& look) {
  constexpr std::uint32_t kB = 1;
  constexpr std::uint32_t kIntra = 2;
  if (!active_) return;
  const auto slice = h264::parse_slice(unit, *active_);
  if (!slice) return;
  if (!slices.any) {
    look.follows = follows(*slice);
    if (slice->reference) last_reference_ = slice->frame_number;
  }
  slices.any = true;
  slices.key = slices.key || h264::unit_of(unit) == h264::Unit::key_slice;
  slices.only_intra = slices.only_intra && slice->type == kIntra;
  reorders_ = reorders_ || slice->type == kB;
}

bool H264::follows(const h264::Slice& slice) const {
  if (!last_reference_ || active_->frame_numbers_may_lack) return false;
  return slice.frame_number == (*last_reference_ + 1) % (1U << active_->frame_number_bits);
}

Buffer H264::parameter_sets() const {
  Buffer sets;
  if (!active_ || pps_.empty()) return sets;
  append_all(sets, sps_);
  append_all(sets, pps_);
  return sets;
}

void append_sets(Buffer& out, const Sets& sets) {
  for (const auto& [id, set] : sets) {
    mp4::append_16(out, static_cast<std::uint32_t>(set.size()));
    append(out, set);
  }
}

void H264::describe(Epoch& epoch) const {
  constexpr std::uint8_t kLengthsOfFourBytes = 0xFF;
  constexpr std::uint8_t kReserved = 0xE0;
  const h264::Sps& sps = *active_;
  epoch.kind = Kind::h264;
  epoch.codec = h264::codec_of(sps);
  epoch.width = sps.width;
  epoch.height = sps.height;
  mp4::Entry entry{"avc1", "avcC", {}, sps.width, sps.height};
  Buffer& box = entry.configuration;
  box = {1,         sps.profile,         sps.compatibility,
         sps.level, kLengthsOfFourBytes, static_cast<std::uint8_t>(kReserved | sps_.size())};
  append_sets(box, sps_);
  box.push_back(static_cast<std::uint8_t>(pps_.size()));
  append_sets(box, pps_);
  if (sps.profile == 100 || sps.profile == 110 || sps.profile == 122 || sps.profile == 144) {
    append_samples(box, sps);
    box.push_back(0);
  }
  epoch.initialisation = mp4::initialisation(entry);
}

// --- H.265 -------------------------------------------------------------------------------------

class H265 final : public Codec {
 public:
  Look look(Bytes access_unit) override;
  [[nodiscard]] Buffer parameter_sets() const override;
  void describe(Epoch& epoch) const override;

 private:
  bool take_set(h265::Unit type, Bytes unit);

  Buffer vps_;
  Buffer sps_;
  Buffer pps_;
  std::optional<h265::Sps> active_;
};

bool is_set(h265::Unit type) {
  return type == h265::Unit::vps || type == h265::Unit::sps || type == h265::Unit::pps;
}

Look H265::look(Bytes access_unit) {
  Look look;
  look.units.reserve(access_unit.size() + 64);
  for (const Bytes unit : units_of(access_unit)) {
    const h265::Unit type = h265::unit_of(unit);
    if (type == h265::Unit::delimiter || type == h265::Unit::filler) continue;
    if (is_set(type) && unit.size() > kLongestSet) continue;
    look.has_sets = take_set(type, unit) || look.has_sets;
    look.picture = look.picture || h265::is_slice(type);
    look.key = look.key || h265::is_key(type);
    append_unit(look.units, unit);
  }
  return look;
}

bool H265::take_set(h265::Unit type, Bytes unit) {
  Buffer* kept = nullptr;
  if (type == h265::Unit::vps) kept = &vps_;
  if (type == h265::Unit::pps) kept = &pps_;
  if (type == h265::Unit::sps) {
    const auto sps = h265::parse_sps(unit);
    if (!sps) return false;
    active_ = sps;
    kept = &sps_;
  }
  if (kept != nullptr) kept->assign(unit.begin(), unit.end());
  return type == h265::Unit::sps;
}

Buffer H265::parameter_sets() const {
  Buffer sets;
  if (vps_.empty() || !active_ || pps_.empty()) return sets;
  for (const Buffer* const set : {&vps_, &sps_, &pps_}) append_unit(sets, *set);
  return sets;
}

void append_set(Buffer& out, h265::Unit type, Bytes set) {
  constexpr std::uint8_t kComplete = 0x80;
  out.push_back(static_cast<std::uint8_t>(kComplete | static_cast<std::uint8_t>(type)));
  mp4::append_16(out, 1);
  mp4::append_16(out, static_cast<std::uint32_t>(set.size()));
  append(out, set);
}

void H265::describe(Epoch& epoch) const {
  const h265::Sps& sps = *active_;
  epoch.kind = Kind::h265;
  epoch.codec = h265::codec_of(sps);
  epoch.width = sps.width;
  epoch.height = sps.height;
  mp4::Entry entry{"hvc1", "hvcC", {1}, sps.width, sps.height};
  Buffer& box = entry.configuration;
  append(box, sps.profile);
  mp4::append_16(box, 0xF000);  // nothing said of segmentation
  box.push_back(0xFC);          // nor of parallelism
  append_samples(box, sps);
  mp4::append_16(box, 0);  // nor of the rate
  constexpr unsigned kLengthsOfFourBytes = 3;
  box.push_back(
      static_cast<std::uint8_t>(sps.layers << 3U | (sps.nested ? 4U : 0U) | kLengthsOfFourBytes));
  box.push_back(3);
  append_set(box, h265::Unit::vps, vps_);
  append_set(box, h265::Unit::sps, sps_);
  append_set(box, h265::Unit::pps, pps_);
  epoch.initialisation = mp4::initialisation(entry);
}

}  // namespace

std::unique_ptr<Codec> make_h264() { return std::make_unique<H264>(); }
std::unique_ptr<Codec> make_h265() { return std::make_unique<H265>(); }

Kind kind_of(Bytes datagram) {
  constexpr std::size_t kPacket = 188;
  constexpr std::uint8_t kSync = 0x47;
  if (datagram.size() >= kPacket && datagram.size() % kPacket == 0) {
    bool packets = true;
    for (std::size_t i = 0; i < datagram.size(); i += kPacket) {
      packets = packets && datagram[i] == kSync;
    }
    if (packets) return Kind::mpeg_ts;
  }
  for (const Bytes unit : units_of(datagram)) {
    if ((unit[0] & 0x80U) != 0) continue;
    if (h264::parse_sps(unit)) return Kind::h264;
    if (h265::parse_sps(unit)) return Kind::h265;
  }
  return Kind::none;
}

}  // namespace nimbus::web
