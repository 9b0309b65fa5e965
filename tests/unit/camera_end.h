// The camera's end of the data link, for tests of what goes out to it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "display/region.h"
#include "net/sources.h"
#include "tests/unit/udp_end.h"

namespace nimbus::test {

using Bytes = std::vector<std::uint8_t>;

/// A reflected CRC, one bit at a time: nothing of the tables under test.
inline std::uint16_t bitwise_crc(std::span<const std::uint8_t> bytes, unsigned polynomial,
                                 unsigned crc) {
  for (const std::uint8_t byte : bytes) {
    for (int bit = 0; bit < 8; ++bit) {
      const bool differs = ((crc ^ static_cast<unsigned>(byte) >> bit) & 1U) != 0;
      crc = differs ? crc >> 1 ^ polynomial : crc >> 1;
    }
  }
  return static_cast<std::uint16_t>(crc);
}

inline std::uint8_t bitwise_crc8(std::span<const std::uint8_t> bytes) {
  return static_cast<std::uint8_t>(bitwise_crc(bytes, 0x8C, 0x77));
}

inline std::uint16_t bitwise_crc16(std::span<const std::uint8_t> bytes) {
  return bitwise_crc(bytes, 0x8408, 0x3692);
}

/// Whether header and checks of a frame are sound.
inline bool is_sound(std::span<const std::uint8_t> frame) {
  if (frame.size() < 13 || frame[0] != 0x55 || frame[1] != frame.size() || frame[2] != 0x04) {
    return false;
  }
  const std::uint16_t check = bitwise_crc16(frame.first(frame.size() - 2));
  return frame[3] == bitwise_crc8(frame.first(3)) && frame[frame.size() - 2] == (check & 0xFF) &&
         frame[frame.size() - 1] == check >> 8;
}

/// A socket that receives what is sent to the camera. The service has heard from it.
class CameraEnd {
 public:
  CameraEnd() {
    EXPECT_TRUE(links_are_open());
    speak();
  }

  /// The next datagram; empty when none comes.
  Bytes receive(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    const std::string bytes = end_.receive(patience);
    return {bytes.begin(), bytes.end()};
  }

 private:
  /// The links stay open as long as the process.
  static bool links_are_open() {
    static const bool open = map_display_region() != nullptr && init_sources(nullptr) == 0;
    return open;
  }

  /// Sends a datagram to the service and waits until frames come here and the service has said on
  /// its console that it found the camera.
  void speak() {
    const std::uint8_t word = 0;
    end_.send(kDataPort, "x");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    do {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline);
      camera_link().send_to_peer(std::span(&word, 1));
    } while (receive(std::chrono::milliseconds(2)).empty() ||
             display_region()->data_connected == 0);
  }

  UdpEnd end_;
};

}  // namespace nimbus::test
