// Any file is read to its end, or refused with one line that says what is expected.
#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/fuzz/invariants.h"
#include "tools/common/failure.h"
#include "tools/sim/recording.h"
#include "tools/sim/replay.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace nimbus::sim;
  if (size == 0) return 0;
  std::string content(reinterpret_cast<const char*>(bytes), size);
  std::FILE* const file = fmemopen(content.data(), content.size(), "rb");
  if (file == nullptr) return 0;
  try {
    Recording recording(file, "recording");
    LinkFilter filter;
    std::chrono::nanoseconds last{0};
    while (auto datagram = recording.next()) {
      nimbus::fuzz::require(datagram->time >= last);
      last = datagram->time;
      nimbus::fuzz::require(datagram->udp.payload.size() <= 65'507);
      (void)filter.take(datagram->udp);
    }
    // At most one datagram is given up for each packet, and that packet may be cut short as well.
    nimbus::fuzz::require(recording.incomplete() <= 2 * recording.packets());
  } catch (const nimbus::tools::Failure& refusal) {
    const std::string line = refusal.what();
    nimbus::fuzz::require(line.find('\n') == std::string::npos);
    nimbus::fuzz::require(line.find("; expected ") != std::string::npos);
  }
  return 0;
}
