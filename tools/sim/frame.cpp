#include "tools/sim/frame.h"

#include <cstddef>

#include "camera/duml.h"
#include "tools/common/text.h"

namespace nimbus::sim {

using tools::format_text;

std::variant<Frame, std::string> check_frame(Bytes datagram) {
  if (datagram.size() < kDumlOverhead) {
    return format_text("%zu bytes, expected at least %zu", datagram.size(), kDumlOverhead);
  }
  if (datagram[0] != kDumlStart) {
    return format_text("starts with %02x, expected %02x", unsigned{datagram[0]},
                       unsigned{kDumlStart});
  }
  constexpr unsigned kLengthBits = 0x3FF;
  const std::size_t length = ByteView(datagram)[DumlHeader::length] & kLengthBits;
  if (length != datagram.size()) {
    return format_text("says that it has %zu bytes, but has %zu", length, datagram.size());
  }
  const ByteView header(datagram);
  const std::uint8_t crc8 = duml_crc8(datagram.first(DumlHeader::check.at));
  if (header[DumlHeader::check] != crc8) {
    return format_text("header check %02x, expected %02x", unsigned{header[DumlHeader::check]},
                       unsigned{crc8});
  }
  const std::size_t checked = length - 2;
  const std::uint16_t crc16 = duml_crc16(datagram.first(checked));
  if (const auto found = load_le<std::uint16_t>(datagram, checked); found != crc16) {
    return format_text("frame check %04x, expected %04x", unsigned{found}, unsigned{crc16});
  }
  return Frame{.sender = header[DumlHeader::sender],
               .receiver = header[DumlHeader::receiver],
               .sequence = header[DumlHeader::sequence],
               .type = header[DumlHeader::type],
               .set = header[DumlHeader::set],
               .id = header[DumlHeader::id],
               .payload = datagram.subspan(kDumlHeaderSize, length - kDumlOverhead)};
}

}  // namespace nimbus::sim
