#include "tools/web/sdp.h"

#include <algorithm>
#include <string_view>

#include "tools/common/text.h"
#include "tools/web/annex_b.h"
#include "tools/web/h264.h"
#include "tools/web/rtp.h"

namespace nimbus::web {
namespace {

/// Bytes of all sets. Receivers read lines of some thousand characters; one set of each kind has
/// less than a hundred bytes.
constexpr std::size_t kMostOfSets = 1024;

/// RFC 4648, 4.
std::string base64(Bytes bytes) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  constexpr std::size_t kGroup = 3;
  std::string text;
  for (; !bytes.empty(); bytes = bytes.subspan(std::min(bytes.size(), kGroup))) {
    const std::size_t there = std::min(bytes.size(), kGroup);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < kGroup; ++i) group = group << 8U | (i < there ? bytes[i] : 0U);
    for (std::size_t i = 0; i <= kGroup; ++i) {
      text += i <= there ? kDigits[group >> (18U - 6U * i) & 0x3FU] : '=';
    }
  }
  return text;
}

/// What of the format is known by the sets.
std::string known_by(Bytes sets) {
  std::string profile;
  std::string list;
  for (const Bytes unit : units_of(sets)) {
    const bool sequence = h264::unit_of(unit) == h264::Unit::sps && unit.size() > 3;
    if (sequence && profile.empty()) {
      profile = tools::format_text("%02X%02X%02X", unit[1], unit[2], unit[3]);
    }
    list += (list.empty() ? "" : ",") + base64(unit);
  }
  return ";profile-level-id=" + profile + ";sprop-parameter-sets=" + list;
}

}  // namespace

std::string session_description(const std::string& address, std::uint16_t port, Bytes sets) {
  const std::string type = std::to_string(rtp::kPayloadType);
  const bool told = !sets.empty() && sets.size() <= kMostOfSets;
  return "v=0\r\n"
         "o=- 0 0 IN IP4 127.0.0.1\r\n"
         "s=Tervado Nimbus\r\n"
         "c=IN IP4 " +
         address +
         "\r\n"
         "t=0 0\r\n"
         "m=video " +
         std::to_string(port) + " RTP/AVP " + type +
         "\r\n"
         "a=rtpmap:" +
         type +
         " H264/90000\r\n"
         "a=fmtp:" +
         type + " packetization-mode=1" + (told ? known_by(sets) : "") +
         "\r\n"
         "a=recvonly\r\n";
}

}  // namespace nimbus::web
