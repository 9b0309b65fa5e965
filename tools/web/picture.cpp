#include "tools/web/picture.h"

#include <array>

#include "base/wire.h"
#include "tools/web/annex_b.h"

namespace nimbus::web {

const char* name_of(Kind kind) {
  constexpr std::array<const char*, 5> kNames{"none", "h264", "h265", "mpeg-ts", "unknown"};
  return kNames.at(static_cast<std::size_t>(kind));
}

const char* name_of(Waiting waiting) {
  constexpr std::array<const char*, 4> kNames{"", "key", "loss", "silence"};
  return kNames.at(static_cast<std::size_t>(waiting));
}

/// The units behind their lengths, which are as long as the start codes.
Buffer Picture::with_lengths() const {
  Buffer out;
  out.reserve(units.size());
  for (const Bytes unit : units_of(units)) {
    mp4::append_32(out, static_cast<std::uint32_t>(unit.size()));
    append(out, unit);
  }
  return out;
}

SharedBytes Picture::body(const SharedPicture& picture, Form form) {
  if (form == Form::raw) return {picture, &picture->units};
  SharedBytes bytes = picture->with_lengths_.lock();
  if (bytes == nullptr) {
    bytes = std::make_shared<const Buffer>(picture->with_lengths());
    picture->with_lengths_ = bytes;
  }
  return bytes;
}

void append_head(Buffer& out, const MessageHead& head) {
  constexpr std::uint8_t kKey = 1;
  constexpr std::uint8_t kAfterGap = 2;
  std::array<std::uint8_t, 16> bytes{};
  bytes[0] = static_cast<std::uint8_t>(head.what);
  bytes[1] = static_cast<std::uint8_t>((head.key ? kKey : 0) | (head.after_gap ? kAfterGap : 0));
  store_le(bytes, 2, static_cast<std::uint16_t>(head.epoch & 0xFFFFU));
  store_le(bytes, 4, head.number);
  store_le(bytes, 8, head.arrival);
  append(out, bytes);
}

}  // namespace nimbus::web
