// What the service costs over the bare loop that no relay can do without.
//
//   tools/sandbox/enter build/release/bench/relay_bench
//       --service build/release/nimbus --bare build/release/bench/bare_relay
//
// `./dev bench` runs it. The bare loop (bare_relay.c) is one thread that receives a datagram, puts
// a header in front, and sends it to a fixed list of viewers with the same pause of 1 ms after each
// send. Whatever the service needs beyond that is its own: the viewer table and a socket for each
// viewer, the turns of who broadcasts, the stamp of the last datagram and its age, the display
// region, the gathering of header and payload.
//
//   wall     From the bridge's first send to the last viewer's last receipt, for a window of
//            datagrams sent back to back, divided by their number. The pauses are most of it.
//   cpu      CPU time of the relay's whole process over such a window, until it is idle again,
//            divided by the number of datagrams. Its child processes do not count.
//   latency  From the bridge's send of a single datagram, into an idle relay, to the first viewer's
//            receipt.
//   memory   Resident memory (VmRSS), the largest of all runs.
//   start    From the start of the process to its last start-up text.
//   stream   From the bridge's send to the first of ten viewers, for a datagram each 40 ms, half of
//            them or all but one in a hundred: alone, and with a hundred of the camera's reports a
//            second, each of which is told to the viewers as well.
//   silent   The same to one viewer, beside nine whose addresses nobody answers for.
//   rate     Datagrams that reach ten viewers in a second, with the next ones always waiting.
//   calls    System calls of the thread that relays, from one datagram's receipt to the next's: the
//            median over some datagrams.
//   size     The stripped binary.
//   against  CPU time as above, of another build of the service as well (--against), each held
//            against the bare loop beside it, in turn.
//
// Both relays run, and are measured in turn, strictly alternating. "service" and "bare loop" are
// the medians of all measurements. "ratio" is the median of the ratios within each pair, not the
// ratio of the medians: what slows the machine down for a while slows down both of a pair. "spread"
// is half the distance between the quartiles of those ratios. Compared with itself, the bare loop
// comes out within 3 % of 1 for wall and cpu, and for latency within 5 %, or 10 % on a busy
// machine; a limit that is missed by less deserves a second run, with more --rounds.
//
// The relays share the machine with this driver. So the viewers' sockets are large enough for all
// that a measurement sends to them, nothing receives while a relay is measured, and the time of a
// receipt is the kernel's stamp on the datagram. Nothing may be lost: a frame that is missing, out
// of order or of the wrong length ends the benchmark with an error.
//
// Once a second the service also tells every viewer how things stand and probes for the access
// point, in turn with the video. Most windows see nothing of it, and so do the medians. The rates
// include it, and so does what a second without video costs. They are measured once.
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "bench/driver.h"
#include "bench/relay.h"
#include "bench/report.h"
#include "bench/samples.h"
#include "bench/traffic.h"
#include "net/sources.h"
#include "net/viewers.h"

namespace nimbus::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// --- What is measured --------------------------------------------------------------------------

/// One kind of traffic.
struct Case {
  std::size_t bytes;    ///< of one datagram
  std::size_t viewers;  ///< 1 to kMaxViewers
  std::size_t window;   ///< datagrams sent back to back; they fit a relay's receive buffer
  std::size_t windows;  ///< of each relay in one round
  std::size_t singles;  ///< datagrams sent one by one to each relay in one round
};

constexpr std::array kCases{
    Case{.bytes = 1'400, .viewers = 1, .window = 32, .windows = 9, .singles = 48},
    Case{.bytes = 1'400, .viewers = 10, .window = 4, .windows = 9, .singles = 36},
    Case{.bytes = 60'000, .viewers = 1, .window = 32, .windows = 9, .singles = 48},
    Case{.bytes = 60'000, .viewers = 10, .window = 4, .windows = 9, .singles = 36},
};

// RTP packets, seven packets of an MPEG transport stream, the largest datagram that is relayed.
constexpr std::array<std::size_t, 3> kSteadySizes{1'400, 1'316, 60'000};
constexpr milliseconds kSteadyTime{2'500};

constexpr std::size_t kTracedDatagrams = 16;
constexpr std::size_t kStreamDatagrams = 200;

constexpr double kWallLimit = 1.05;
constexpr double kCpuLimit = 1.15;
constexpr double kLatencyLimit = 1.25;
constexpr double kAgainstLimit = 1.02;
constexpr double kSilentLimitMs = 50;
constexpr double kMemoryLimitKib = 4096;
constexpr double kStartLimitMs = 20;

// How long a fresh service is busy with its first status messages and the probe that goes with
// them.
constexpr milliseconds kWarmUp{150};

// The service forgets a viewer after five seconds.
constexpr milliseconds kRegisterPeriod{1'000};
constexpr milliseconds kRegisterTime{2};

// --- How it is measured ------------------------------------------------------------------------

double microseconds(nanoseconds time) { return static_cast<double>(time.count()) / 1e3; }

/// A figure of both relays, each time measured of one right after the other.
struct Pair {
  Samples service;
  Samples bare;
  Samples ratio;

  void add(double of_service, double of_bare) {
    service.add(of_service);
    bare.add(of_bare);
    ratio.add(of_service / of_bare);
  }
};

/// What was measured with one kind of traffic, in microseconds; wall and cpu for one datagram.
struct Results {
  Pair wall;
  Pair cpu;
  Pair latency;
};

struct Measurement {
  std::array<Results, kCases.size()> cases;
  Pair start_ms;
  Pair resident_kib;
};

struct Binaries {
  std::filesystem::path service;
  std::filesystem::path bare;
  std::filesystem::path against = {};  ///< another build of the service; empty: none
};

/// One round with one kind of traffic: both relays run, and are used in turn.
class Round {
 public:
  Round(const Binaries& binaries, const Case& traffic)
      : traffic_(traffic),
        around_(traffic.bytes, traffic.viewers),
        service_(Relay::start_service(binaries.service, around_)),
        bare_(Relay::start_bare(binaries.bare, around_)) {
    const nanoseconds end = wall_clock() + kWarmUp;
    while (wall_clock() < end) in_turn(traffic_.window, [](const Effort&, const Effort&) {});
  }

  void measure(Results& results) {
    const auto datagrams = static_cast<double>(traffic_.window);
    for (std::size_t i = 0; i < traffic_.windows; ++i) {
      in_turn(traffic_.window, [&](const Effort& service, const Effort& bare) {
        results.wall.add(microseconds(service.wall) / datagrams,
                         microseconds(bare.wall) / datagrams);
        results.cpu.add(microseconds(service.cpu) / datagrams, microseconds(bare.cpu) / datagrams);
      });
    }
    for (std::size_t i = 0; i < traffic_.singles; ++i) {
      in_turn(1, [&](const Effort& service, const Effort& bare) {
        results.latency.add(microseconds(service.latency), microseconds(bare.latency));
      });
    }
  }

  [[nodiscard]] const Relay& service() const { return service_; }
  [[nodiscard]] const Relay& bare() const { return bare_; }

 private:
  /// Strictly alternating, so that before each measurement of either it was the other's turn: what
  /// ran last, and on which core, matters to a latency of some 30 us.
  void in_turn(std::size_t datagrams, const auto& take) {
    keep_viewers();
    const Effort service = service_.relay(datagrams);
    const Effort bare = bare_.relay(datagrams);
    take(service, bare);
  }

  void keep_viewers() {
    if (wall_clock() - registered_ < kRegisterPeriod) return;
    around_.register_viewers();
    std::this_thread::sleep_for(kRegisterTime);
    registered_ = wall_clock();
  }

  const Case& traffic_;
  Surroundings around_;
  Relay service_;
  Relay bare_;
  nanoseconds registered_ = wall_clock();
};

Measurement measure(const Binaries& binaries, int rounds) {
  Measurement result;
  for (int i = 0; i < rounds; ++i) {
    std::fprintf(stderr, "round %d of %d\n", i + 1, rounds);
    for (std::size_t k = 0; k < kCases.size(); ++k) {
      Round round(binaries, kCases[k]);
      round.measure(result.cases[k]);
      const Relay& service = round.service();
      const Relay& bare = round.bare();
      result.start_ms.add(microseconds(service.start_time()) / 1e3,
                          microseconds(bare.start_time()) / 1e3);
      result.resident_kib.add(service.process().resident_kib(), bare.process().resident_kib());
    }
  }
  return result;
}

/// CPU microseconds that a second with ten viewers and no video costs the service.
double idle_cost(const Binaries& binaries) {
  Surroundings around(kSteadySizes.front(), kMaxViewers);
  const Relay service = Relay::start_service(binaries.service, around);
  const nanoseconds before = service.process().cpu_time();
  std::this_thread::sleep_for(kSteadyTime);
  const std::chrono::duration<double> time = kSteadyTime;
  return microseconds(service.process().cpu_time() - before) / time.count();
}

/// How many system calls the thread that receives datagrams of that size makes from one to the
/// next.
Samples calls_between_receipts(const std::filesystem::path& calls, std::size_t bytes) {
  const std::string receipt = " = " + std::to_string(bytes);
  Samples result;
  std::ifstream trace(calls);
  std::string thread;
  double count = 0;
  for (std::string line; std::getline(trace, line);) {
    // A call that another thread's interrupts is shown in two lines.
    if (line.ends_with("<unfinished ...>")) continue;
    const bool received = line.find("recvmsg") != std::string::npos && line.ends_with(receipt);
    if (thread.empty() && received) thread = line.substr(0, line.find(' ') + 1);
    if (thread.empty() || !line.starts_with(thread)) continue;
    if (received && count > 0) result.add(std::exchange(count, 0));
    ++count;
  }
  return result;
}

double calls_per_datagram(const Binaries& binaries, std::size_t viewers) {
  constexpr std::size_t kBytes = 1'400;
  const std::filesystem::path calls = "calls";
  Surroundings around(kBytes, viewers);
  Relay service = Relay::start_traced(binaries.service, calls, around);
  service.relay(kTracedDatagrams);
  return calls_between_receipts(calls, kBytes).median();
}

double stripped_kib(const std::filesystem::path& binary) {
  const std::filesystem::path file = "stripped";
  std::filesystem::copy_file(binary, file);
  if (std::system("strip stripped") != 0) throw std::runtime_error("cannot strip the binary");
  return static_cast<double>(std::filesystem::file_size(file)) / 1024;
}

// --- How it is shown ---------------------------------------------------------------------------

std::string label(const char* what, std::size_t bytes, std::size_t viewers) {
  return std::string(what) + ", " + std::to_string(bytes) + " B, " + std::to_string(viewers) +
         (viewers == 1 ? " viewer" : " viewers");
}

Comparison bare_loop(const Pair& pair, std::optional<double> limit = {}) {
  return {"bare loop", pair.bare.median(), pair.ratio.median(), limit, pair.ratio.spread()};
}

void add_pairs(const Measurement& measured, Table& table) {
  struct Figure {
    const char* name;
    Pair Results::*pair;
    double limit;
  };
  constexpr std::array kFigures{
      Figure{"wall per datagram", &Results::wall, kWallLimit},
      Figure{"CPU per datagram", &Results::cpu, kCpuLimit},
      Figure{"first receipt", &Results::latency, kLatencyLimit},
  };
  for (const auto& figure : kFigures) {
    for (std::size_t i = 0; i < kCases.size(); ++i) {
      const Pair& pair = measured.cases[i].*figure.pair;
      table.add({label(figure.name, kCases[i].bytes, kCases[i].viewers),
                 pair.service.median(),
                 "us",
                 {},
                 bare_loop(pair, figure.limit)});
    }
  }
}

void add_shares(const Measurement& measured, Table& table) {
  for (std::size_t i = 0; i < kCases.size(); ++i) {
    if (kCases[i].viewers != kMaxViewers) continue;
    const Pair& cpu = measured.cases[i].cpu;
    table.add({label("CPU for each viewer", kCases[i].bytes, kMaxViewers),
               cpu.service.median() / kMaxViewers, "us"});
  }
}

/// The median and the 99th percentile of a stream's first receipts, with and without reports.
void add_streams(const Binaries& binaries, Table& table) {
  constexpr std::size_t kBytes = 1'400;
  constexpr std::size_t kGimbalReport = 53;
  constexpr std::uint8_t kGimbalSet = 4;
  Surroundings around(kBytes, kMaxViewers);
  const UniqueFd camera = udp_socket();
  const auto report = empty_report(kGimbalReport, kGimbalSet);
  const auto stream = [&](Relay relay, bool with_reports) {
    int tick = 0;
    return relay.relay_stream(kStreamDatagrams, [&] {
      if (tick++ % 100 == 0) around.register_viewers();
      if (with_reports) bench::send(camera, report, kDataPort);
    });
  };
  const Samples bare = stream(Relay::start_bare(binaries.bare, around), false);
  for (const bool with_reports : {false, true}) {
    const Samples service = stream(Relay::start_service(binaries.service, around), with_reports);
    for (const double share : {0.5, 0.99}) {
      const std::string what = "stream to ten viewers" +
                               std::string(with_reports ? ", with reports" : "") +
                               (share < 0.9 ? ", median" : ", p99");
      const double of_service = service.quantile(share);
      const double of_bare = bare.quantile(share);
      table.add(
          {what, of_service, "ms", {}, Comparison{"bare loop", of_bare, of_service / of_bare}});
    }
  }
}

/// Viewers of a network where nobody answers when the service asks for their addresses.
class SilentViewers {
 public:
  SilentViewers() {
    if (std::system("ip link add silent0 type veth peer name silent1 && "
                    "ip address add 10.7.0.1/24 dev silent0 && "
                    "ip link set silent0 up && ip link set silent1 up") != 0) {
      throw std::runtime_error("cannot make a network of silent viewers");
    }
  }

  /// Keeps them registered, by frames that seem to come from there.
  void register_with_service() const {
    for (std::uint8_t n = 0; n < kMaxViewers - 1; ++n) {
      constexpr std::uint8_t kLength = 20 + 8 + kFrameHeaderSize + 2;
      // IPv4 (RFC 791; the kernel fills in length and checksum), UDP (RFC 768), a registration.
      std::array<std::uint8_t, kLength> packet{0x45, 0,           0, kLength, 0,  0, 0, 0,
                                               64,   IPPROTO_UDP, 0, 0,       10, 7, 0};
      packet[15] = static_cast<std::uint8_t>(100 + n);
      const std::array<std::uint8_t, 4> service{10, 7, 0, 1};
      std::copy(service.begin(), service.end(), packet.begin() + 16);
      packet[20] = 0x9C;  // port 40,000
      packet[21] = 0x40;
      packet[22] = kViewerPort >> 8;
      packet[23] = kViewerPort & 0xFF;
      packet[25] = kLength - 20;
      packet[28] = kFrameMagic;
      sockaddr_in to{};
      to.sin_family = AF_INET;
      std::memcpy(&to.sin_addr, service.data(), service.size());
      check(sendto(raw_.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&to),
                   sizeof(to)) == kLength,
            "a registration");
    }
  }

 private:
  UniqueFd raw_{socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)};
};

/// A stream to one viewer beside nine that nobody can reach. That one datagram is lost ends it.
void add_silent_viewers(const Binaries& binaries, Table& table) {
  constexpr std::size_t kBytes = 20'000;  // all of them wait in the viewer's socket
  Surroundings around(kBytes, 1);
  const SilentViewers silent;
  Relay service = Relay::start_service(binaries.service, around);
  int tick = 0;
  const Samples delays = service.relay_stream(kStreamDatagrams, [&] {
    if (tick++ % 100 != 0) return;
    around.register_viewers();
    silent.register_with_service();
  });
  table.add({"beside nine silent viewers, median", delays.median(), "ms"});
  table.add({"beside nine silent viewers, p99", delays.quantile(0.99), "ms", kSilentLimitMs});
}

/// The CPU time of this build and of another.
void add_against(const Binaries& binaries, int rounds, Table& table) {
  const Binaries other{.service = binaries.against, .bare = binaries.bare};
  for (const auto& traffic : kCases) {
    Results own_results;
    Results other_results;
    for (int i = 0; i < rounds; ++i) {
      Round(binaries, traffic).measure(own_results);
      Round(other, traffic).measure(other_results);
    }
    const Pair& own = own_results.cpu;
    const Pair& others = other_results.cpu;
    table.add({label("CPU of two builds", traffic.bytes, traffic.viewers),
               own.service.median(),
               "us",
               {},
               Comparison{"the other build", others.service.median(),
                          own.ratio.median() / others.ratio.median(), kAgainstLimit}});
  }
}

void add_rates(const Binaries& binaries, Table& table) {
  for (const std::size_t bytes : kSteadySizes) {
    Surroundings around(bytes, kMaxViewers);
    const double bare = Relay::start_bare(binaries.bare, around).relay_steadily(kSteadyTime);
    const double rate = Relay::start_service(binaries.service, around).relay_steadily(kSteadyTime);
    table.add({label("datagrams relayed", bytes, kMaxViewers),
               rate,
               "/s",
               {},
               Comparison{"bare loop", bare, rate / bare}});
  }
}

void add_calls(const Binaries& binaries, Table& table) {
  table.add({"system calls per datagram, one viewer", calls_per_datagram(binaries, 1), "calls"});
  table.add({"system calls per datagram, ten viewers", calls_per_datagram(binaries, kMaxViewers),
             "calls"});
}

// --- The whole ---------------------------------------------------------------------------------

void run(const Binaries& binaries, int rounds, Table& table) {
  const Measurement measured = measure(binaries, rounds);
  add_pairs(measured, table);
  add_shares(measured, table);
  add_streams(binaries, table);
  add_silent_viewers(binaries, table);
  add_rates(binaries, table);
  table.add({"CPU without video, ten viewers", idle_cost(binaries), "us/s"});
  add_calls(binaries, table);
  table.add({"start to the last start-up text", measured.start_ms.service.median(), "ms",
             kStartLimitMs, bare_loop(measured.start_ms)});
  const double service = measured.resident_kib.service.largest();
  const double bare = measured.resident_kib.bare.largest();
  table.add({"resident memory, the largest", service, "KiB", kMemoryLimitKib,
             Comparison{"bare loop", bare, service / bare}});
  table.add({"stripped binary", stripped_kib(binaries.service), "KiB"});
  if (!binaries.against.empty()) add_against(binaries, rounds, table);
}

}  // namespace
}  // namespace nimbus::bench

int main(int argc, char** argv) {
  using namespace nimbus::bench;
  Binaries binaries;
  int rounds = 10;
  CLI::App app("Measures the service's relay against a bare loop.", "relay_bench");
  add_binary(app, "--service", binaries.service, "the service's binary");
  add_binary(app, "--bare", binaries.bare, "the bare loop's binary");
  app.add_option_function<std::string>(
         "--against",
         [&](const std::string& path) { binaries.against = std::filesystem::absolute(path); },
         "another build of the service, to compare with")
      ->check(CLI::ExistingFile);
  app.add_option("--rounds", rounds, "how often each relay runs with each traffic")
      ->check(CLI::Range(1, 100))
      ->capture_default_str();
  return run_driver(app, argc, argv, [&](Table& table) { run(binaries, rounds, table); });
}
