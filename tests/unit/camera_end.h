// The camera's end of the data link, for tests of what goes out to it.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "app/display_region.h"
#include "base/unique_fd.h"
#include "net/sources.h"

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
    sockaddr_in address = loopback(0);
    EXPECT_EQ(bind(socket_.get(), as_address(address), sizeof(address)), 0);
    speak();
  }

  /// The next datagram; empty when none comes.
  Bytes receive(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    pollfd readable{socket_.get(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(patience.count())) != 1) return {};
    Bytes bytes(65536);
    const ssize_t length = recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return bytes;
  }

 private:
  /// The links stay open as long as the process.
  static bool links_are_open() {
    static const bool open = map_display_region() != nullptr && init_sources(nullptr) == 0;
    return open;
  }
  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static const sockaddr* as_address(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
  }

  /// Sends a datagram to the service and waits until frames come here and the service has said on
  /// its console that it found the camera.
  void speak() {
    const sockaddr_in service = loopback(kDataPort);
    const std::uint8_t word = 0;
    EXPECT_EQ(sendto(socket_.get(), &word, 1, 0, as_address(service), sizeof(service)), 1);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    do {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline);
      camera_link().send_to_peer(std::span(&word, 1));
    } while (receive(std::chrono::milliseconds(2)).empty() ||
             display_region()->data_connected == 0);
  }

  UniqueFd socket_{socket(AF_INET, SOCK_DGRAM, 0)};
};

}  // namespace nimbus::test
