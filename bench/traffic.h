// The two ends of a relay under test: the bridge that feeds it and the viewers that it serves.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/unique_fd.h"
#include "bench/udp.h"

namespace nimbus::bench {

/// Sends video to relays. Each datagram starts with its number, by which the viewers know
/// that none is missing.
class Bridge {
 public:
  /// Sends datagrams of `size` bytes.
  explicit Bridge(std::size_t size);

  /// Sends one datagram to that port of 127.0.0.1.
  void send(std::uint16_t port);

  [[nodiscard]] std::size_t datagram_size() const noexcept { return datagram_.size(); }
  /// The number of the next datagram, from 0 on.
  [[nodiscard]] std::uint32_t next_number() const noexcept { return number_; }

 private:
  UniqueFd socket_;
  std::vector<std::uint8_t> datagram_;
  std::uint32_t number_ = 0;
};

/// A viewer on 127.0.0.1. Frames wait in its socket, stamped by the kernel on arrival, until
/// drain(): receiving them takes no CPU time from the relay while it is measured.
class Viewer {
 public:
  Viewer();

  /// The port that it receives on.
  [[nodiscard]] std::uint16_t port() const noexcept { return port_; }

  /// Sends a registration to the service.
  void register_with_service();

  /// Forgets all frames, and expects those of the datagrams that the bridge sends next.
  void expect(const Bridge& bridge);

  /// Takes the frames that wait. Throws when one is missing, out of order or of the wrong length;
  /// frames of earlier datagrams, and those that are not video, are passed over.
  void drain();

  /// When each expected frame arrived, in order.
  [[nodiscard]] const std::vector<std::chrono::nanoseconds>& arrivals() const noexcept {
    return arrivals_;
  }

 private:
  UniqueFd socket_;
  std::uint16_t port_;
  std::size_t frame_size_ = 0;
  std::uint32_t first_number_ = 0;
  std::vector<std::chrono::nanoseconds> arrivals_;
};

/// Drains the viewers until each has `count` of the expected frames. Returns false when that takes
/// longer than `limit`.
[[nodiscard]] bool frames_come(std::vector<Viewer>& viewers, std::size_t count,
                               std::chrono::milliseconds limit);

}  // namespace nimbus::bench
