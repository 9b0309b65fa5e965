// What the camera's frames cost beyond their checksum: building and sealing one to send, and
// scanning and decoding a mix of all reports with no viewer registered. Each against the CRC-16
// alone over the same bytes, in the same run; the ratios are what counts. The figures are medians
// of CPU time.
//
//   tools/sandbox/enter build/release/bench/frames_bench
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/driver.h"
#include "bench/report.h"
#include "camera/duml.h"
#include "control/telemetry.h"
#include "display/region.h"

namespace nimbus::bench {
namespace {

constexpr double kSealLimit = 1.3;
constexpr double kScanLimit = 1.5;

// --- What is measured --------------------------------------------------------------------------

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
    const auto frame = empty_report(length, command_set);
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

// --- How it is shown ---------------------------------------------------------------------------

/// Keeps the median of each benchmark, in nanoseconds.
class Medians : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name != "median") continue;
      medians_[run.run_name.function_name] = run.GetAdjustedCPUTime();
    }
  }

  [[nodiscard]] double of(const char* name) const { return medians_.at(name); }

 private:
  std::map<std::string, double> medians_;
};

Row row(const char* what, double figure, double checksum, double limit) {
  return {what, figure, "ns", {}, Comparison{"CRC-16 alone", checksum, figure / checksum, limit}};
}

void run(Table& table) {
  if (map_display_region() == nullptr) throw std::runtime_error("cannot map the display region");
  std::fprintf(stderr, "frames and reports\n");
  Medians medians;
  benchmark::RunSpecifiedBenchmarks(&medians);
  table.add(row("sealing a frame", medians.of("seal_a_frame"), medians.of("checksum_of_a_frame"),
                kSealLimit));
  table.add(row("scanning and decoding reports of all kinds", medians.of("scan_all_reports"),
                medians.of("checksum_of_all_reports"), kScanLimit));
}

/// What slows the machine down for a while shall meet both sides of a ratio.
void set_up_repetitions() {
  std::array<std::string, 4> flags{"frames_bench", "--benchmark_repetitions=9",
                                   "--benchmark_report_aggregates_only=true",
                                   "--benchmark_enable_random_interleaving=true"};
  std::array<char*, flags.size()> arguments{};
  for (std::size_t i = 0; i < flags.size(); ++i) arguments[i] = flags[i].data();
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
}

}  // namespace
}  // namespace nimbus::bench

int main(int argc, char** argv) {
  using namespace nimbus::bench;
  CLI::App app("Measures what the camera's frames cost beyond their checksum.", "frames_bench");
  set_up_repetitions();
  return run_driver(app, argc, argv, run);
}
