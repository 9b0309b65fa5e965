#include "camera/duml.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <utility>

#include "tests/unit/camera_end.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using test::bitwise_crc16;
using test::bitwise_crc8;
using test::Bytes;

template <typename Array>
Bytes vector_of(const Array& array) {
  return {array.begin(), array.end()};
}

// --- Checksums ---------------------------------------------------------------------------------

TEST(DumlCrc, OfNothingIsTheSeed) {
  EXPECT_EQ(duml_crc8({}), 0x77);
  EXPECT_EQ(duml_crc16({}), 0x3692);
}

TEST(DumlCrc, OfAKnownFrame) {
  const Bytes frame{0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0x19, 0x28, 0x40, 0x02, 0x01, 0x01};
  EXPECT_EQ(duml_crc8(std::span(frame).first(3)), 0x66);
  EXPECT_EQ(duml_crc16(frame), 0x3312);
}

TEST(DumlCrc, IsTheBitwiseOne) {
  std::mt19937 chance(1);  // NOLINT(cert-msc51-cpp): the same bytes in every run
  for (std::size_t size = 0; size <= 300; ++size) {
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(chance()); });
    ASSERT_EQ(duml_crc8(bytes), bitwise_crc8(bytes)) << size;
    ASSERT_EQ(duml_crc16(bytes), bitwise_crc16(bytes)) << size;
  }
}

// --- Templates ---------------------------------------------------------------------------------

TEST(DumlTemplate, LaysOutTheHeader) {
  constexpr DumlTemplate<2> kToCamera({.set = CommandSet::camera, .id = 0xAF}, {0xAB, 0xCD});
  EXPECT_EQ(vector_of(kToCamera.bytes()),
            (Bytes{0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01, 0, 0, 0x40, 0x02, 0xAF, 0xAB, 0xCD, 0, 0}));
  constexpr DumlTemplate<0> kToGimbal(
      {.set = CommandSet::gimbal, .id = 0x08, .sender = 0x09, .type = 0x20});
  EXPECT_EQ(vector_of(kToGimbal.bytes()),
            (Bytes{0x55, 0x0D, 0x04, 0x33, 0x09, 0x04, 0, 0, 0x20, 0x04, 0x08, 0, 0}));
  EXPECT_EQ(kToCamera.payload(), (DumlPayload<2>{0xAB, 0xCD}));
}

template <std::size_t payload_size>
std::pair<std::size_t, std::uint8_t> length_and_check() {
  constexpr DumlTemplate<payload_size> kFrame({.set = CommandSet::camera, .id = 1});
  return {kFrame.bytes()[1], kFrame.bytes()[3]};
}

TEST(DumlTemplate, HeaderChecksOfTheLengthsInUse) {
  using Row = std::pair<std::size_t, std::uint8_t>;
  EXPECT_EQ(length_and_check<0>(), Row(13, 0x33));
  EXPECT_EQ(length_and_check<1>(), Row(14, 0x66));
  EXPECT_EQ(length_and_check<2>(), Row(15, 0xA2));
  EXPECT_EQ(length_and_check<4>(), Row(17, 0x92));
  EXPECT_EQ(length_and_check<5>(), Row(18, 0xC7));
  EXPECT_EQ(length_and_check<7>(), Row(20, 0x6D));
  EXPECT_EQ(length_and_check<8>(), Row(21, 0xA9));
  EXPECT_EQ(length_and_check<21>(), Row(34, 0xEA));
}

// --- Sealing -----------------------------------------------------------------------------------

constexpr DumlTemplate<1> kShot({.set = CommandSet::camera, .id = 0x01}, {0x01});
constexpr DumlTemplate<0> kFormat({.set = CommandSet::camera, .id = 0x72});

TEST(SealFrame, AsKnown) {
  duml_sequence = 0x2819;
  EXPECT_EQ(
      vector_of(seal_frame(kShot, kShot.payload())),
      (Bytes{0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0x19, 0x28, 0x40, 0x02, 0x01, 0x01, 0x12, 0x33}));
}

TEST(SealFrame, WithoutAPayload) {
  duml_sequence = 0;
  EXPECT_EQ(vector_of(seal_frame(kFormat, {})),
            (Bytes{0x55, 0x0D, 0x04, 0x33, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x72, 0x21, 0x92}));
}

TEST(SealFrame, ThePayloadReplacesThatOfTheTemplate) {
  const auto frame = seal_frame(kShot, {0x7E});
  EXPECT_EQ(frame[11], 0x7E);
  EXPECT_TRUE(test::is_sound(frame));
  EXPECT_EQ(kShot.payload(), DumlPayload<1>{0x01});
}

TEST(SealFrame, EveryNumberInItsTurn) {
  duml_sequence = 0;
  for (unsigned number = 0; number < 0x10000 + 3; ++number) {
    const auto frame = seal_frame(kFormat, {});
    ASSERT_EQ(frame[6] | frame[7] << 8, number & 0xFFFFU);
    ASSERT_TRUE(test::is_sound(frame)) << number;
  }
  EXPECT_EQ(duml_sequence, 3);
}

/// Numbers may be used twice then, but no frame is torn.
TEST(SealFrame, OnSeveralThreadsAtOnce) {
  const auto seal = [] { EXPECT_TRUE(test::is_sound(seal_frame(kShot, {0x01}))); };
  const test::Background other(seal);
  const test::Background third(seal);
  test::hammer(seal);
}

// --- Sending -----------------------------------------------------------------------------------

bool peer_is_known = false;

TEST(SendToCamera, NobodyHeardYet) {
  if (peer_is_known) GTEST_SKIP() << "another test has spoken for the camera";
  const Bytes bytes{1, 2, 3};
  EXPECT_EQ(send_to_camera(bytes), -1);
  duml_sequence = 7;
  EXPECT_EQ(send_frame(kShot), -1);
  EXPECT_EQ(duml_sequence, 8) << "the dropped frame has taken its number";
}

TEST(SendToCamera, IsOneDatagramAndReturnsItsLength) {
  peer_is_known = true;
  test::CameraEnd camera;
  const Bytes bytes{1, 2, 3};
  EXPECT_EQ(send_to_camera(bytes), 3);
  EXPECT_EQ(camera.receive(), bytes);

  duml_sequence = 0xFFFF;
  EXPECT_EQ(send_frame(kFormat), 13);
  EXPECT_EQ(send_frame(kShot), 14);
  EXPECT_EQ(send_frame(kShot, {0x02}), 14);
  const auto sealed_as = [](const auto& frame, std::uint16_t number, const auto& payload) {
    duml_sequence = number;
    return vector_of(seal_frame(frame, payload));
  };
  EXPECT_EQ(camera.receive(), sealed_as(kFormat, 0xFFFF, DumlPayload<0>{}));
  EXPECT_EQ(camera.receive(), sealed_as(kShot, 0, DumlPayload<1>{0x01}));
  EXPECT_EQ(camera.receive(), sealed_as(kShot, 1, DumlPayload<1>{0x02}));
  EXPECT_EQ(camera.receive(std::chrono::milliseconds(0)), Bytes{});
}

TEST(SendToCamera, WhatTheSystemRefuses) {
  peer_is_known = true;
  const test::CameraEnd camera;
  EXPECT_EQ(send_to_camera(Bytes(65'535)), -1);  // no UDP datagram is that long
}

TEST(SendToCamera, ALengthIsCutTo16Bits) {
  peer_is_known = true;
  test::CameraEnd camera;
  EXPECT_EQ(send_to_camera(Bytes(65'536 + 3, 7)), 3);
  EXPECT_EQ(camera.receive(), Bytes(3, 7));
}

}  // namespace
}  // namespace nimbus
