// Any script is played, or refused with one line.
#include <cstdint>
#include <string>

#include "tests/fuzz/invariants.h"
#include "tools/common/failure.h"
#include "tools/sim/rc_script.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace nimbus::sim;
  try {
    RcPlayer player(parse_rc_script({reinterpret_cast<const char*>(bytes), size}, "script"));
    RcReceiver receiver;
    for (const double seconds : {0.0, 0.02, 1.0, 1.0, 60.0}) player.play(seconds, receiver);
    for (const auto& function : receiver.functions) {
      nimbus::fuzz::require(!function || (*function >= -1 && *function <= 1));
    }
  } catch (const nimbus::tools::Failure& refusal) {
    nimbus::fuzz::require(std::string(refusal.what()).find('\n') == std::string::npos);
  }
  return 0;
}
