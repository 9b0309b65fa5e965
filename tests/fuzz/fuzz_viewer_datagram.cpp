// Any datagram from any viewer leaves the mailbox holding a bounded text.
#include <netinet/in.h>

#include <cstdint>
#include <cstdlib>

#include "app/display_region.h"
#include "net/viewers.h"

namespace {

nimbus::DisplayRegion* prepare() {
  nimbus::DisplayRegion* const region = nimbus::map_display_region();
  if (region == nullptr || nimbus::init_network(nullptr) == -1) std::abort();
  return region;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static nimbus::DisplayRegion* const region = prepare();
  if (size == 0) return 0;  // never handed on by the link
  // The last byte also chooses the sender, so that the table fills, empties and overflows.
  const nimbus::Endpoint sender{htonl(INADDR_LOOPBACK),
                                static_cast<std::uint16_t>(4240 + bytes[size - 1] % 16)};
  nimbus::handle_viewer_datagram({{bytes, size}, sender});
  if (region->command_mailbox.take().view().size() >= nimbus::CommandMailbox::kSize) std::abort();
  return 0;
}
