// Recordings: packets to datagrams, fragments, clocks, and what of them is played when.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "tools/common/failure.h"
#include "tools/sim/packet.h"
#include "tools/sim/recording.h"
#include "tools/sim/replay.h"

namespace nimbus::sim {
namespace {

using Buffer = std::vector<std::uint8_t>;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

void put(Buffer& bytes, std::size_t at, unsigned value) {
  bytes[at] = static_cast<std::uint8_t>(value >> 8);
  bytes[at + 1] = static_cast<std::uint8_t>(value);
}

/// A piece of an IP packet, from 10.0.0.1 to 10.0.0.2.
Buffer ip(const Buffer& payload, unsigned fragment = 0, unsigned id = 1) {
  Buffer packet(20 + payload.size());
  packet[0] = 0x45;
  put(packet, 2, static_cast<unsigned>(20 + payload.size()));
  put(packet, 4, id);
  put(packet, 6, fragment);
  packet[9] = 17;
  packet[12] = packet[16] = 10;
  packet[15] = 1;
  packet[19] = 2;
  std::copy(payload.begin(), payload.end(), packet.begin() + 20);
  return packet;
}

Buffer udp(std::size_t size, unsigned port = 5001) {
  Buffer datagram(8 + size);
  put(datagram, 0, 4242);
  put(datagram, 2, port);
  put(datagram, 4, static_cast<unsigned>(datagram.size()));
  std::iota(datagram.begin() + 8, datagram.end(), std::uint8_t{0});
  return datagram;
}

constexpr unsigned kMore = 0x2000;

/// The piece of `whole` from `at` to `end`, bytes of 8 at a time.
Buffer piece(const Buffer& whole, std::size_t at, std::size_t end, unsigned id = 1) {
  const Buffer part(whole.begin() + static_cast<std::ptrdiff_t>(at),
                    whole.begin() + static_cast<std::ptrdiff_t>(end));
  return ip(part, static_cast<unsigned>(at / 8) | (end < whole.size() ? kMore : 0), id);
}

TEST(Packet, AWholeDatagram) {
  UdpReader reader;
  const auto datagram = reader.take(ip(udp(5)));
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->source, 0x0A000001U);
  EXPECT_EQ(datagram->destination, 0x0A000002U);
  EXPECT_EQ(datagram->source_port, 4242);
  EXPECT_EQ(datagram->destination_port, 5001);
  EXPECT_EQ(datagram->payload, (Buffer{0, 1, 2, 3, 4}));
}

TEST(Packet, NothingElseIsOne) {
  const Buffer good = ip(udp(5));
  const auto spoilt = [&good](std::size_t at, std::uint8_t value) {
    Buffer packet = good;
    packet[at] = value;
    return packet;
  };
  const Buffer others[] = {
      {},
      Buffer(19),
      spoilt(0, 0x65),  // version 6
      spoilt(0, 0x44),  // a header of 16 bytes
      spoilt(0, 0x4F),  // a header longer than the packet
      spoilt(9, 6),     // TCP
      spoilt(3, 34),    // a packet longer than what is there
      spoilt(3, 19),    // a packet shorter than its header
      spoilt(25, 7),    // UDP shorter than its header
      spoilt(25, 14),   // UDP longer than the packet
      ip(Buffer(7)),    // no room for UDP's header
  };
  UdpReader reader;
  for (const Buffer& other : others) EXPECT_FALSE(reader.take(other));
  EXPECT_TRUE(reader.take(good));
}

TEST(Packet, PaddingBehindThePacketIsNotOfIt) {
  UdpReader reader;
  Buffer packet = ip(udp(1));
  packet.resize(46);
  EXPECT_EQ(reader.take(packet).value().payload.size(), 1U);
}

TEST(Packet, FragmentsInAnyOrder) {
  const Buffer whole = udp(40);
  const std::vector<Buffer> pieces{piece(whole, 0, 16), piece(whole, 16, 32), piece(whole, 32, 48)};
  std::vector<std::size_t> order{0, 1, 2};
  do {
    UdpReader reader;
    EXPECT_FALSE(reader.take(pieces[order[0]]));
    EXPECT_FALSE(reader.take(pieces[order[0]]));  // again
    EXPECT_FALSE(reader.take(pieces[order[1]]));
    const auto datagram = reader.take(pieces[order[2]]);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->payload, Buffer(whole.begin() + 8, whole.end()));
    EXPECT_EQ(reader.given_up(), 0U);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Packet, FragmentsOfTwoDatagramsDoNotMix) {
  const Buffer whole = udp(40);
  UdpReader reader;
  EXPECT_FALSE(reader.take(piece(whole, 0, 16, 1)));
  EXPECT_FALSE(reader.take(piece(whole, 16, 48, 2)));
  EXPECT_EQ(reader.given_up(), 2U);
  EXPECT_TRUE(reader.take(piece(whole, 16, 48, 1)));
  EXPECT_TRUE(reader.take(piece(whole, 0, 16, 2)));
  EXPECT_EQ(reader.given_up(), 0U);
}

TEST(Packet, WhatOverlapsIsDropped) {
  const Buffer whole = udp(40);
  const std::pair<Buffer, Buffer> overlaps[] = {
      {piece(whole, 0, 24), piece(whole, 16, 48)},  // behind
      {piece(whole, 16, 48), piece(whole, 0, 24)},  // before
      {piece(whole, 8, 16), piece(whole, 0, 32)},   // around
      {piece(whole, 0, 16), piece(udp(32), 16, 40)},
  };
  for (const auto& [first, second] : overlaps) {
    UdpReader reader;
    EXPECT_FALSE(reader.take(first));
    const bool other_end = reader.take(second).has_value();
    EXPECT_FALSE(other_end);
  }
  // A second end in another place.
  UdpReader reader;
  EXPECT_FALSE(reader.take(piece(whole, 40, 48)));
  EXPECT_FALSE(reader.take(piece(udp(48), 48, 56)));
  EXPECT_EQ(reader.given_up(), 1U);
}

TEST(Packet, PiecesBeyondALargestPacketAreDropped) {
  UdpReader reader;
  EXPECT_FALSE(reader.take(ip(Buffer(16), 0x1FFF)));
  EXPECT_FALSE(reader.take(ip(Buffer(0), kMore)));
  EXPECT_EQ(reader.given_up(), 2U);
}

TEST(Packet, WhatStaysInPiecesIsBounded) {
  const Buffer whole = udp(40);
  UdpReader reader;
  for (unsigned id = 0; id < 33; ++id) EXPECT_FALSE(reader.take(piece(whole, 0, 16, id)));
  EXPECT_EQ(reader.given_up(), 33U);
  EXPECT_FALSE(reader.take(piece(whole, 16, 48, 0)));  // its head was given up
  EXPECT_TRUE(reader.take(piece(whole, 16, 48, 32)));
}

TEST(RecordedClock, CountsFromTheFirstPacket) {
  RecordedClock clock;
  EXPECT_EQ(clock.take(seconds(1'700'000'000)), nanoseconds(0));
  EXPECT_EQ(clock.take(seconds(1'700'000'000) + nanoseconds(7)), nanoseconds(7));
}

TEST(RecordedClock, ALittleOutOfOrderIsNow) {
  RecordedClock clock;
  (void)clock.take(seconds(10));
  (void)clock.take(seconds(12));
  EXPECT_EQ(clock.take(seconds(11)), seconds(2));
  EXPECT_EQ(clock.take(seconds(13)), seconds(3));
}

TEST(RecordedClock, GoesOnWhenTheWallClockWasSetBack) {
  RecordedClock clock;
  (void)clock.take(seconds(1'700'000'000));
  (void)clock.take(seconds(1'700'000'005));
  EXPECT_EQ(clock.take(seconds(100)), seconds(5));
  EXPECT_EQ(clock.take(seconds(101)), seconds(6));
}

TEST(RecordedClock, AnyStampIsTaken) {
  RecordedClock clock;
  nanoseconds last{0};
  for (const auto stamp : {nanoseconds::min(), nanoseconds::max(), nanoseconds(0),
                           nanoseconds::max(), nanoseconds::min(), nanoseconds::max()}) {
    const auto time = clock.take(stamp);
    EXPECT_GE(time, last);
    last = time;
  }
}

UdpDatagram datagram(std::uint16_t source_port, std::uint16_t destination_port, Buffer payload) {
  return {1, 2, source_port, destination_port, std::move(payload)};
}

TEST(LinkFilter, TheBridgesPorts) {
  LinkFilter filter;
  auto data = datagram(9, 5000, {1});
  auto video = datagram(9, 5001, {2});
  auto other = datagram(9, 5002, {3});
  auto to_the_camera = datagram(5000, 9, {4});
  EXPECT_EQ(filter.take(data), Link::data);
  EXPECT_EQ(filter.take(video), Link::video);
  EXPECT_EQ(filter.take(other), std::nullopt);
  EXPECT_EQ(filter.take(to_the_camera), std::nullopt);
}

Buffer video_frame() {
  Buffer frame(12);
  frame[0] = 0x42;
  frame[1] = 1;
  frame.push_back(99);
  return frame;
}

TEST(LinkFilter, TheFirstViewersVideoOutOfItsFrames) {
  LinkFilter filter;
  auto frame = datagram(4242, 1000, video_frame());
  EXPECT_EQ(filter.take(frame), Link::video);
  EXPECT_EQ(frame.payload, Buffer{99});
  auto second = datagram(4242, 1001, video_frame());
  EXPECT_EQ(filter.take(second), std::nullopt);
  auto message = datagram(4242, 1000, Buffer{0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
  EXPECT_EQ(filter.take(message), std::nullopt);
  auto shorter = datagram(4242, 1000, Buffer(12, 0x42));
  EXPECT_EQ(filter.take(shorter), std::nullopt);
}

TEST(LinkFilter, TheBridgesVideoIsNotSentTwice) {
  LinkFilter filter;
  auto video = datagram(9, 5001, {2});
  EXPECT_EQ(filter.take(video), Link::video);
  auto frame = datagram(4242, 1000, video_frame());
  EXPECT_EQ(filter.take(frame), std::nullopt);
}

ReplayOptions recording(const std::string& name) {
  ReplayOptions options;
  options.path = std::string(NIMBUS_SOURCE_DIR "/tests/recordings/").append(name);
  return options;
}

std::vector<double> times(Replay& replay, std::size_t most = 1000) {
  std::vector<double> due;
  while (replay.due() && due.size() < most) {
    due.push_back(*replay.due());
    (void)replay.take();
  }
  return due;
}

TEST(Replay, TimesAreThoseOfTheRecording) {
  Replay as_it_was(recording("fragments.pcap"));
  const auto due = times(as_it_was);
  ASSERT_EQ(due.size(), 7U);
  // The recorded times themselves, however long it lasts: no wait adds to another.
  for (std::size_t n = 0; n < due.size(); ++n) {
    EXPECT_NEAR(due[n], 0.04 * static_cast<double>(n), 0.001);
  }
  ReplayOptions fast = recording("fragments.pcap");
  fast.speed = 100;
  Replay hundredfold(fast);
  const auto sooner = times(hundredfold);
  ASSERT_EQ(sooner.size(), due.size());
  for (std::size_t n = 0; n < due.size(); ++n) EXPECT_NEAR(sooner[n], due[n] / 100, 1e-9);
}

TEST(Replay, PartsOfIt) {
  ReplayOptions options = recording("fragments.pcap");
  options.from = 0.06;
  options.to = 0.18;
  Replay replay(options);
  const auto due = times(replay);
  ASSERT_EQ(due.size(), 3U);
  EXPECT_NEAR(due[0], 0.02, 0.001);
  EXPECT_NEAR(due[2], 0.10, 0.001);
}

TEST(Replay, RoundsFollowEachOther) {
  ReplayOptions options = recording("fragments.pcap");
  options.loops = true;
  Replay replay(options);
  const auto due = times(replay, 700);
  ASSERT_EQ(due.size(), 700U);
  EXPECT_TRUE(std::is_sorted(due.begin(), due.end()));
  const double round = due[7] - due[0];
  EXPECT_GT(round, due[6]);
  EXPECT_NEAR(due[693], due[0] + 99 * round, 1e-6);
}

TEST(Replay, NothingToPlayIsRefused) {
  ReplayOptions options = recording("fragments.pcap");
  options.only = Link::data;
  options.loops = true;
  EXPECT_THROW(Replay{options}, tools::Failure);
  options.only = {};
  options.from = 1000;
  EXPECT_THROW(Replay{options}, tools::Failure);
  EXPECT_THROW(Replay{recording("none.pcap")}, tools::Failure);
  EXPECT_THROW(Replay{recording("camera.txt")}, tools::Failure);
}

}  // namespace
}  // namespace nimbus::sim
