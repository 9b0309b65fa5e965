// A recording of a network, as tcpdump, Wireshark and `nimbusctl capture` write it, read from its
// start to its end.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "tools/sim/packet.h"

struct pcap;  // libpcap

namespace nimbus::sim {

/// A UDP datagram of a recording.
struct RecordedDatagram {
  std::chrono::nanoseconds time;  ///< since the first packet; never less than the one before
  UdpDatagram udp;
};

/// The clock of a recording. Packets of several interfaces stand a little out of order: they keep
/// the latest time so far. A wall clock that was set back has jumped: time goes on from there.
class RecordedClock {
 public:
  /// The time since the first packet of one that is stamped so.
  std::chrono::nanoseconds take(std::chrono::nanoseconds stamp);

 private:
  std::optional<std::chrono::nanoseconds> zero_;
  std::chrono::nanoseconds latest_{0};
};

/// pcap and pcapng, by libpcap; Ethernet, Linux cooked (both versions) and raw IP.
class Recording {
 public:
  /// Throws Failure when the file cannot be read or is no such recording.
  explicit Recording(const std::string& path);
  /// The same of a file that is open, whose owner it becomes; `name` is for people.
  Recording(std::FILE* file, std::string name);

  /// The next UDP datagram, or nothing at the end of the file. Throws Failure, which says at which
  /// packet, when the file is damaged or cut short.
  [[nodiscard]] std::optional<RecordedDatagram> next();

  /// Packets read so far.
  [[nodiscard]] std::uint64_t packets() const { return packets_; }
  /// Packets that the capture has cut short, and datagrams of which pieces lack.
  [[nodiscard]] std::uint64_t incomplete() const { return cut_ + reader_.given_up(); }
  /// How much of the file has been read, from 0 to 1; 0 when it has no size.
  [[nodiscard]] double part() const;

 private:
  struct Close {
    void operator()(pcap* file) const noexcept;
  };

  std::string name_;
  double size_ = 0;  // bytes
  std::unique_ptr<pcap, Close> file_;
  LinkLayer layer_ = LinkLayer::ethernet;
  UdpReader reader_;
  RecordedClock clock_;
  std::uint64_t packets_ = 0;
  std::uint64_t cut_ = 0;
};

}  // namespace nimbus::sim
