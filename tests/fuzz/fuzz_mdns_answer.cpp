// Whatever answers the question for boards is read within its bounds, or not at all.
#include <cstdint>

#include "tests/fuzz/invariants.h"
#include "tools/ctl/mdns.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::uint16_t id = 0x4242;
  for (const auto& board : nimbus::ctl::boards_of({bytes, size}, id, 0x7F00'0001)) {
    nimbus::fuzz::require(!board.name.empty() && board.name.size() <= 63);
    nimbus::fuzz::require(board.host.size() <= 254 && board.port != 0);
  }
  return 0;
}
