// Any datagram from any viewer is a command in the mailbox, up to its NUL and cut, or none.
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "control/speed_mixer.h"
#include "display/region.h"
#include "net/viewers.h"
#include "tests/fuzz/invariants.h"

namespace {

using nimbus::fuzz::require;

constexpr std::uint16_t kFirstPort = 4240;
constexpr std::size_t kHeaderSize = 12;

nimbus::DisplayRegion* prepare() {
  nimbus::DisplayRegion* const region = nimbus::map_display_region();
  require(region != nullptr && nimbus::open_viewers_link(nimbus::set_viewer_speed) == 0);
  return region;
}

/// The text that must wait in the mailbox.
std::string_view command_in(std::string_view datagram, std::uint16_t port) {
  const bool own = port == nimbus::kViewerPort;
  if (own || datagram.size() <= kHeaderSize || datagram[0] != '\x42') return {};
  const std::string_view text = datagram.substr(kHeaderSize);
  if (text[0] != '{') return {};
  return text.substr(0, std::min(text.find('\0'), nimbus::CommandMailbox::kSize - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static nimbus::DisplayRegion* const region = prepare();
  if (size == 0) return 0;  // never handed on by the link
  // The last byte also chooses the sender, so that the table fills, empties and overflows.
  const auto port = static_cast<std::uint16_t>(kFirstPort + bytes[size - 1] % 16);
  nimbus::handle_viewer_datagram({{bytes, size}, {htonl(INADDR_LOOPBACK), port}});
  const auto text = region->command_mailbox.take();
  require(text.view() == command_in({reinterpret_cast<const char*>(bytes), size}, port));
  nimbus::check_viewer_timeouts();
  require(region->viewer_count <= nimbus::kMaxViewers);
  return 0;
}
