// How fast the service obeys, and what it costs while nothing happens.
//
//   tools/sandbox/enter build/release/bench/control_bench --service build/release/nimbus
//
//   command  From a viewer's send of a command to the arrival of its frame at the bridge. Commands
//            wait in a mailbox that is looked into every 50 ms, so half of that is the least that
//            the median can be. They are sent at moments that have nothing to do with that period.
//   report   From the bridge's send of the camera's settings, another ISO each time, to the arrival
//            of the message made of them at the one viewer. Once a second one of them may have to
//            wait for a status message.
//   stream   The gimbal's speed, one frame each 30 ms: how far the last of many frames lies from
//            where the first and the period say, per second (drift); and how far a frame is from
//            its place at most (jitter, which is the machine's and has no limit).
//   idle     CPU time of the service in a minute without traffic, as a share of one core; its
//            once-a-second probe is a child process and does not count. The floor is what threads
//            take that only sleep, with the periods of the service's.
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <random>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "base/wire.h"
#include "bench/child.h"
#include "bench/driver.h"
#include "bench/report.h"
#include "bench/samples.h"
#include "bench/udp.h"
#include "camera/duml.h"
#include "camera/reports.h"
#include "net/messages.h"
#include "net/sources.h"
#include "net/viewers.h"

namespace nimbus::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using Microseconds = std::chrono::duration<double, std::micro>;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr double kMedianLimitMs = 30;
constexpr double kWorstLimitMs = 60;
constexpr double kDriftLimitMs = 1;
constexpr double kIdleLimitPercent = 0.5;

constexpr int kMailboxPeriodUs = 50'000;
constexpr Milliseconds kStreamPeriod{30};
constexpr milliseconds kPatience{2'000};

constexpr std::string_view kReady = "Init control\n";
constexpr std::string_view kNewViewer = "New client connected";
constexpr std::string_view kCommand = R"({"cmd":"record","param":"start"})";
constexpr std::array<std::uint8_t, 8> kFullSpeed{5, 1, 0x10, 0x27, 0, 0, 0, 0};
constexpr std::array<std::uint8_t, 8> kStop{5, 1};
constexpr std::array<std::uint8_t, 2> kRegister{0, 0};
constexpr std::array<std::uint8_t, 1> kLeave{1};

// The camera's settings; in the report and in the message the ISO stands at the same place.
constexpr std::size_t kIsoOffset = SettingsReport::iso.at;
static_assert(kIsoOffset == CameraSettingsMessage::iso.at);

// The command set and id of a frame tell the two frames of these measurements.
constexpr std::array<std::uint8_t, 2> kRecordFrame{2, 0x02};
constexpr std::array<std::uint8_t, 2> kSpeedFrame{4, 0x0C};

using Bytes = std::array<std::uint8_t, 256>;

/// When the next datagram that is wanted arrived. Throws when none does in time.
nanoseconds arrival(const UniqueFd& socket, const auto& is_wanted) {
  for (;;) {
    pollfd readable{socket.get(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(kPatience.count())) <= 0) {
      throw std::runtime_error("the service does not send what is expected");
    }
    Bytes bytes{};
    alignas(cmsghdr) StampSpace control;
    iovec part{bytes.data(), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    check(recvmsg(socket.get(), &message, 0) >= 0, "recvmsg");
    if (is_wanted(bytes)) return arrival_of(message);
  }
}

/// The bridge's end of the camera link: it has said something, so the service answers it.
class CameraEnd {
 public:
  CameraEnd() : socket_(stamped_udp_socket()) {
    constexpr std::array<std::uint8_t, 1> kSignOfLife{0};
    say(kSignOfLife);
  }

  void say(std::span<const std::uint8_t> bytes) { send(socket_, bytes, kDataPort); }

  /// When the next frame of that command set and id arrived.
  nanoseconds frame(const std::array<std::uint8_t, 2>& kind) {
    return arrival(socket_, [&kind](const Bytes& frame) {
      return std::equal(kind.begin(), kind.end(), frame.begin() + DumlHeader::set.at);
    });
  }

 private:
  UniqueFd socket_;
};

/// A viewer that is served only once it has registered.
class ViewerEnd {
 public:
  ViewerEnd() : socket_(stamped_udp_socket()) {}

  void say(std::span<const std::uint8_t> payload) {
    std::vector<std::uint8_t> frame(kFrameHeaderSize + payload.size());
    frame[0] = kFrameMagic;
    std::copy(payload.begin(), payload.end(), frame.begin() + kFrameHeaderSize);
    send(socket_, frame, kViewerPort);
  }

  void say(std::string_view text) {
    say(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
  }

  /// When the camera's settings with that ISO arrived.
  nanoseconds settings(std::uint8_t iso) {
    return arrival(socket_, [iso](const Bytes& frame) {
      return frame[kFrameHeaderSize] == type_of(ToViewer::camera_settings) &&
             frame[kFrameHeaderSize + kIsoOffset] == iso;
    });
  }

 private:
  UniqueFd socket_;
};

/// Milliseconds from each command to its frame.
Samples command_latency(CameraEnd& camera, ViewerEnd& viewer, int commands) {
  Samples latency;
  std::mt19937 random(1);
  // Whole periods of the mailbox: each frame shows where its period began, and no part of one may
  // be favoured.
  std::uniform_int_distribution<int> pause_us(0, 4 * kMailboxPeriodUs);
  for (int i = 0; i < commands; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(pause_us(random)));
    const nanoseconds sent = wall_clock();
    viewer.say(kCommand);
    latency.add(Milliseconds(camera.frame(kRecordFrame) - sent).count());
  }
  return latency;
}

/// Microseconds from each report to its message.
Samples report_latency(Child& service, CameraEnd& camera, ViewerEnd& viewer, int reports) {
  Samples latency;
  std::mt19937 random(1);
  // The service pauses for a millisecond after each message.
  std::uniform_int_distribution<int> pause_us(2'000, 20'000);
  auto report = empty_report(SettingsReport::kLength, 0);
  report.push_back(0);  // a report is taken only with something behind it
  for (int i = 0; i < reports; ++i) {
    // A registration ends after five seconds.
    viewer.say(kRegister);
    service.wait_for(kNewViewer);
    const auto iso = static_cast<std::uint8_t>(1 + i % 2);
    report[kIsoOffset] = iso;
    seal(std::span(report).first<SettingsReport::kLength>());
    std::this_thread::sleep_for(std::chrono::microseconds(pause_us(random)));
    const nanoseconds sent = wall_clock();
    camera.say(report);
    latency.add(Microseconds(viewer.settings(iso) - sent).count());
  }
  viewer.say(kLeave);
  return latency;
}

struct Stream {
  double drift_ms;   ///< per second
  double jitter_ms;  ///< the largest
};

Stream stream_period(CameraEnd& camera, ViewerEnd& viewer, int frames) {
  viewer.say(kFullSpeed);
  camera.frame(kSpeedFrame);
  const nanoseconds first = camera.frame(kSpeedFrame);
  Samples jitter;
  double offset_ms = 0;
  for (int i = 1; i <= frames; ++i) {
    offset_ms = (Milliseconds(camera.frame(kSpeedFrame) - first) - kStreamPeriod * i).count();
    jitter.add(std::abs(offset_ms));
  }
  viewer.say(kStop);
  const double seconds = std::chrono::duration<double>(kStreamPeriod * frames).count();
  return {.drift_ms = std::abs(offset_ms) / seconds, .jitter_ms = jitter.largest()};
}

/// Percent of one core.
struct Idle {
  double service;
  double floor;  ///< threads that do nothing but sleep with the same periods
};

double share_of(nanoseconds cpu, std::chrono::seconds time) {
  return 100.0 * std::chrono::duration<double>(cpu) / time;
}

/// Sleeps again and again until it shall stop. The CPU time that this took.
nanoseconds sleep_again_and_again(milliseconds period, const std::atomic<bool>& stop) {
  while (!stop) usleep(static_cast<useconds_t>(1000 * period.count()));
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + nanoseconds(used.tv_nsec);
}

/// Both at the same time, so that both meet the same machine.
Idle idle_share(const Child& service, std::chrono::seconds time) {
  constexpr std::array kPeriods{milliseconds(20), milliseconds(30), milliseconds(50)};
  std::atomic<bool> stop = false;
  std::vector<std::future<nanoseconds>> sleepers;
  sleepers.reserve(kPeriods.size());
  const nanoseconds before = service.cpu_time();
  for (const milliseconds period : kPeriods) {
    sleepers.push_back(
        std::async(std::launch::async, sleep_again_and_again, period, std::cref(stop)));
  }
  std::this_thread::sleep_for(time);
  const nanoseconds used = service.cpu_time() - before;
  stop = true;
  nanoseconds floor{};
  for (auto& sleeper : sleepers) floor += sleeper.get();
  return {.service = share_of(used, time), .floor = share_of(floor, time)};
}

struct Options {
  std::filesystem::path service;
  int commands = 500;
  int reports = 500;
  int frames = 1'000;
  int idle_seconds = 60;
};

void run(const Options& options, Table& table) {
  Child service({options.service});
  service.wait_for(kReady);
  CameraEnd camera;
  ViewerEnd viewer;
  std::fprintf(stderr, "%d commands, %d reports, %d frames of the stream, %d s of nothing\n",
               options.commands, options.reports, options.frames, options.idle_seconds);
  const Samples command = command_latency(camera, viewer, options.commands);
  const Samples report = report_latency(service, camera, viewer, options.reports);
  const Stream stream = stream_period(camera, viewer, options.frames);
  const Idle idle = idle_share(service, std::chrono::seconds(options.idle_seconds));

  table.add({"command to frame, median", command.median(), "ms", kMedianLimitMs});
  table.add({"command to frame, slowest", command.largest(), "ms", kWorstLimitMs});
  table.add({"report to message, median", report.median(), "us"});
  table.add({"report to message, slowest", report.largest(), "us"});
  table.add({"gimbal stream, drift", stream.drift_ms, "ms/s", kDriftLimitMs});
  table.add({"gimbal stream, jitter", stream.jitter_ms, "ms"});
  table.add({"CPU without traffic, of one core", idle.service, "%", kIdleLimitPercent,
             Comparison{"sleeping threads", idle.floor, idle.service / idle.floor}});
}

}  // namespace
}  // namespace nimbus::bench

int main(int argc, char** argv) {
  using namespace nimbus::bench;
  Options options;
  CLI::App app("Measures how fast the service obeys, and what it costs while nothing happens.",
               "control_bench");
  add_binary(app, "--service", options.service, "the service's binary");
  app.add_option("--commands", options.commands, "how many commands are sent")
      ->check(CLI::Range(1, 1'000))  // each is a line on the service's console, a pipe
      ->capture_default_str();
  app.add_option("--reports", options.reports, "how many reports the camera sends")
      ->check(CLI::Range(1, 1'000'000))
      ->capture_default_str();
  app.add_option("--frames", options.frames, "how many frames of the stream are looked at")
      ->check(CLI::Range(1, 1'000'000))
      ->capture_default_str();
  app.add_option("--idle-seconds", options.idle_seconds, "how long nothing happens")
      ->check(CLI::Range(1, 3'600))
      ->capture_default_str();
  return run_driver(app, argc, argv, [&](Table& table) { run(options, table); });
}
