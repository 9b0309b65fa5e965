// The simulated camera takes any frame, one of its commands or not, and its reports stay what the
// service takes for sound. The input is the command set, the id and the payload of a frame.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "base/wire.h"
#include "camera/duml.h"
#include "tests/fuzz/invariants.h"
#include "tools/sim/camera_model.h"
#include "tools/sim/commands.h"
#include "tools/sim/frame.h"
#include "tools/sim/reports.h"

namespace {

constexpr std::size_t kLongestPayload = 64;

std::vector<std::uint8_t> sealed_frame(std::span<const std::uint8_t> input) {
  const auto payload = input.subspan(3, std::min(input.size() - 3, kLongestPayload));
  std::vector<std::uint8_t> frame(nimbus::kDumlHeaderSize);
  frame[0] = nimbus::kDumlStart;
  frame[1] = static_cast<std::uint8_t>(payload.size() + nimbus::kDumlOverhead);
  frame[2] = 4;
  frame[3] = nimbus::duml_crc8(std::span(frame).first<3>());
  frame[4] = 2;
  frame[5] = input[0];
  frame[9] = input[1];
  frame[10] = input[2];
  frame.insert(frame.end(), payload.begin(), payload.end());
  const std::uint16_t check = nimbus::duml_crc16(frame);
  frame.resize(frame.size() + 2);
  nimbus::store_le(frame, frame.size() - 2, check);
  return frame;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace nimbus::sim;
  if (size < 3) return 0;
  static_cast<void>(check_frame({bytes, size}));  // as it came, it may be anything
  const std::vector<std::uint8_t> datagram = sealed_frame({bytes, size});
  const auto checked = check_frame(datagram);
  const Frame* const frame = std::get_if<Frame>(&checked);
  nimbus::fuzz::require(frame != nullptr);
  const CameraCommand* const command = find_command(*frame);
  if (command == nullptr) return 0;
  nimbus::fuzz::require(!describe(*command, frame->payload).empty());

  CameraModel camera;
  camera.apply(*command, frame->payload);
  camera.tick(0.5);
  ReportEncoder encoder;
  for (const Report& report : reports()) {
    const auto sent = encoder.encode(report, camera);
    const std::size_t end = sent.size() - 2;
    nimbus::fuzz::require(sent.size() == report.length);
    nimbus::fuzz::require(nimbus::duml_crc16(std::span(sent).first(end)) ==
                          nimbus::load_le<std::uint16_t>(sent, end));
  }
  return 0;
}
