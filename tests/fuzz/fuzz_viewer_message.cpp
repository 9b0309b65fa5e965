// Any payload from the service is shown, as a text and as one JSON object on one line.
#include <cstdint>
#include <string>

#include "tests/fuzz/invariants.h"
#include "tools/ctl/messages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;  // a frame without a payload is not shown
  const nimbus::ctl::Message message = nimbus::ctl::decode_message({bytes, size});
  nimbus::fuzz::require(nimbus::ctl::text_of(message).starts_with(message.name.front()));
  const std::string json = nimbus::ctl::json_of(message, 0, 0);
  nimbus::fuzz::require(json.starts_with('{') && json.ends_with('}'));
  nimbus::fuzz::require(json.find('\n') == std::string::npos);
  return 0;
}
