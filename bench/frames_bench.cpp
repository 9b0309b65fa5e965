// What the camera's frames cost beyond their checksum: building and sealing one to send, and
// scanning and decoding a mix of all reports with no viewer registered. Each against the CRC-16
// alone over the same bytes, in the same run; the ratios are what counts. Runs in the sandbox: it
// maps the region.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "app/display_region.h"
#include "base/wire.h"
#include "camera/duml.h"
#include "control/telemetry.h"

namespace nimbus {
namespace {

constexpr DumlTemplate<7> kFrame({CommandSet::gimbal, 0x0C}, {0, 0, 0, 0, 0, 0, 0x90});

void checksum_of_a_frame(benchmark::State& state) {
  auto bytes = kFrame.bytes();
  for (auto _ : state) {
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(duml_crc16(std::span(bytes).first<18>()));
  }
}
BENCHMARK(checksum_of_a_frame);

void seal_a_frame(benchmark::State& state) {
  auto payload = kFrame.payload();
  for (auto _ : state) {
    benchmark::DoNotOptimize(payload.data());
    benchmark::ClobberMemory();
    auto frame = seal_frame(kFrame, payload);
    benchmark::DoNotOptimize(frame);
  }
}
BENCHMARK(seal_a_frame);

/// One sound report of each kind, and a byte behind the last.
std::vector<std::uint8_t> all_reports() {
  struct Kind {
    std::uint8_t length;
    std::uint8_t command_set;
  };
  constexpr std::array<Kind, 9> kKinds{
      {{17, 4}, {30, 2}, {36, 2}, {53, 4}, {57, 5}, {58, 2}, {62, 2}, {77, 2}, {107, 2}}};
  std::vector<std::uint8_t> datagram;
  for (const auto& [length, command_set] : kKinds) {
    std::vector<std::uint8_t> frame(length);
    frame[0] = kDumlStart;
    frame[1] = length;
    frame[9] = command_set;
    const std::size_t checked = frame.size() - 2;
    store_le(frame, checked, duml_crc16(std::span(frame).first(checked)));
    datagram.insert(datagram.end(), frame.begin(), frame.end());
  }
  datagram.push_back(0);
  return datagram;
}

void checksum_of_all_reports(benchmark::State& state) {
  const auto datagram = all_reports();
  for (auto _ : state) {
    // Frame by frame, as the scanner must: each checksum starts when the one before is known.
    for (std::size_t at = 0; at + 1 < datagram.size(); at += datagram[at + 1]) {
      const std::size_t checked = datagram[at + 1] - 2U;
      benchmark::DoNotOptimize(duml_crc16(std::span(datagram).subspan(at, checked)));
    }
  }
}
BENCHMARK(checksum_of_all_reports);

void scan_all_reports(benchmark::State& state) {
  const auto datagram = all_reports();
  for (auto _ : state) scan_camera_datagram(datagram);
}
BENCHMARK(scan_all_reports);

}  // namespace
}  // namespace nimbus

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (nimbus::map_display_region() == nullptr) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
