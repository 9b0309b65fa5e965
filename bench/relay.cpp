#include "bench/relay.h"

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

#include "net/sources.h"

namespace nimbus::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::uint16_t kBareVideoPort = 5101;

constexpr const char* kServiceReady = "Init video source... done\n";
constexpr const char* kServiceNewViewer = "New client connected";
constexpr const char* kBareReady = "ready\n";

// After the last receipt a relay still has its last pause to make.
constexpr milliseconds kSettle{2};

// Many times what a window takes: a busy machine is no reason to fail.
constexpr milliseconds kWindowLimit{5'000};
constexpr milliseconds kFirstDatagramLimit{50};
constexpr int kFirstDatagrams = 100;

constexpr std::size_t kSteadyBacklog = 16;

}  // namespace

void Surroundings::register_viewers() {
  for (auto& viewer : viewers) viewer.register_with_service();
}

Relay::Relay(std::vector<std::string> command, const char* ready_text, std::uint16_t video_port,
             Surroundings& around)
    : around_(around),
      video_port_(video_port),
      started_(wall_clock()),
      process_(std::move(command)) {
  process_.wait_for(ready_text);
  start_time_ = wall_clock() - started_;
}

Relay Relay::start_service_by(std::vector<std::string> command, Surroundings& around) {
  Relay result(std::move(command), kServiceReady, kVideoPort, around);
  around.register_viewers();
  result.process_.wait_for(kServiceNewViewer, static_cast<int>(around.viewers.size()));
  result.wait_until_it_relays();
  return result;
}

Relay Relay::start_service(const std::filesystem::path& binary, Surroundings& around) {
  return start_service_by({binary}, around);
}

Relay Relay::start_traced(const std::filesystem::path& binary, const std::filesystem::path& calls,
                          Surroundings& around) {
  // With -D strace is no parent of the service: the child that was started becomes the service.
  return start_service_by({"strace", "-D", "-f", "-qq", "-o", calls, binary}, around);
}

Relay Relay::start_bare(const std::filesystem::path& binary, Surroundings& around) {
  std::vector<std::string> command{binary, std::to_string(kBareVideoPort)};
  for (const auto& viewer : around.viewers) command.push_back(std::to_string(viewer.port()));
  Relay result(std::move(command), kBareReady, kBareVideoPort, around);
  result.wait_until_it_relays();
  return result;
}

void Relay::expect_frames() {
  for (auto& viewer : around_.viewers) viewer.expect(around_.bridge);
}

void Relay::wait_until_it_relays() {
  // What it is busy with at its start.
  for (int i = 0; i < kFirstDatagrams; ++i) {
    expect_frames();
    around_.bridge.send(video_port_);
    if (frames_come(around_.viewers, 1, kFirstDatagramLimit)) return;
  }
  throw std::runtime_error("a relay does not relay");
}

Effort Relay::relay(std::size_t datagrams) {
  expect_frames();
  const nanoseconds cpu_before = process_.cpu_time();
  const nanoseconds begin = wall_clock();
  for (std::size_t i = 0; i < datagrams; ++i) around_.bridge.send(video_port_);
  if (!frames_come(around_.viewers, datagrams, kWindowLimit)) {
    throw std::runtime_error("a relay has lost a datagram");
  }
  std::this_thread::sleep_for(kSettle);
  nanoseconds end{};
  for (const auto& viewer : around_.viewers) end = std::max(end, viewer.arrivals().back());
  return {.wall = end - begin,
          .latency = around_.viewers.front().arrivals().front() - begin,
          .cpu = process_.cpu_time() - cpu_before};
}

Samples Relay::relay_stream(std::size_t datagrams, const std::function<void()>& each_tick) {
  constexpr int kTicks = 4;
  constexpr auto kTick = kStreamPeriod / kTicks;
  constexpr std::size_t kMoments = 10;  // of a tick, by turns
  expect_frames();
  std::vector<nanoseconds> sent;
  auto due = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < datagrams * kTicks; ++i) {
    each_tick();
    if (i % kTicks == 0) {
      const std::size_t moment = i / kTicks % kMoments;
      std::this_thread::sleep_until(due + kTick * moment / kMoments);
      sent.push_back(wall_clock());
      around_.bridge.send(video_port_);
    }
    std::this_thread::sleep_until(due += kTick);
  }
  if (!frames_come(around_.viewers, datagrams, kWindowLimit)) {
    throw std::runtime_error("a relay has lost a datagram");
  }
  Samples result;
  const auto& arrivals = around_.viewers.front().arrivals();
  for (std::size_t i = 0; i < datagrams; ++i) {
    result.add(std::chrono::duration<double, std::milli>(arrivals[i] - sent[i]).count());
  }
  return result;
}

double Relay::relay_steadily(milliseconds time) {
  expect_frames();
  const auto& arrivals = around_.viewers.back().arrivals();
  const nanoseconds end = wall_clock() + time;
  for (std::size_t sent = 0; wall_clock() < end;) {
    for (; sent < arrivals.size() + kSteadyBacklog; ++sent) around_.bridge.send(video_port_);
    std::this_thread::sleep_for(milliseconds(5));
    for (auto& viewer : around_.viewers) viewer.drain();
  }
  if (arrivals.size() < 2) throw std::runtime_error("a relay has stopped");
  const std::chrono::duration<double> taken = arrivals.back() - arrivals.front();
  return static_cast<double>(arrivals.size() - 1) / taken.count();
}

}  // namespace nimbus::bench
