// A running relay under test with its surroundings: a bridge that feeds it and viewers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/child.h"
#include "bench/samples.h"
#include "bench/traffic.h"

namespace nimbus::bench {

/// The bridge and the viewers that all relays of one measurement share.
struct Surroundings {
  Surroundings(std::size_t datagram_size, std::size_t viewer_count)
      : bridge(datagram_size), viewers(viewer_count) {}

  /// Sends every viewer's registration to the service.
  void register_viewers();

  Bridge bridge;
  std::vector<Viewer> viewers;
};

/// What it took to relay some datagrams that were sent back to back into an idle relay.
struct Effort {
  std::chrono::nanoseconds wall;     ///< from the first send to the last viewer's last receipt
  std::chrono::nanoseconds latency;  ///< from the first send to the first viewer's first receipt
  std::chrono::nanoseconds cpu;      ///< of the relay's process, until it was idle again
};

/// Between two datagrams of a stream.
inline constexpr std::chrono::milliseconds kStreamPeriod{40};

/// The service or the bare loop, as a process that serves the viewers of its surroundings.
class Relay {
 public:
  /// Start the one or the other, and wait until it relays. Throw when it does not.
  static Relay start_service(const std::filesystem::path& binary, Surroundings& around);
  /// The service with strace beside it, which writes every system call to that file.
  static Relay start_traced(const std::filesystem::path& binary, const std::filesystem::path& calls,
                            Surroundings& around);
  static Relay start_bare(const std::filesystem::path& binary, Surroundings& around);

  /// From the start of the process to its last start-up text.
  [[nodiscard]] std::chrono::nanoseconds start_time() const noexcept { return start_time_; }

  [[nodiscard]] const Child& process() const noexcept { return process_; }

  /// Relays that many datagrams. Throws when one does not reach every viewer.
  Effort relay(std::size_t datagrams);

  /// Relays one datagram each kStreamPeriod, at a moment of that period that varies, and calls
  /// `each_tick` before each. Returns how long each took to the first viewer, in milliseconds.
  /// Throws when one is lost.
  Samples relay_stream(std::size_t datagrams, const std::function<void()>& each_tick);

  /// Relays for that long, with the next datagrams always waiting. Returns how many the last viewer
  /// got per second.
  double relay_steadily(std::chrono::milliseconds time);

 private:
  Relay(std::vector<std::string> command, const char* ready_text, std::uint16_t video_port,
        Surroundings& around);
  static Relay start_service_by(std::vector<std::string> command, Surroundings& around);
  void expect_frames();
  void wait_until_it_relays();

  Surroundings& around_;
  std::uint16_t video_port_;
  std::chrono::nanoseconds started_;
  Child process_;
  std::chrono::nanoseconds start_time_{};
};

}  // namespace nimbus::bench
