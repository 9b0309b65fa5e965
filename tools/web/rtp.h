// Pictures of H.264 as RTP packets (RFC 3550, RFC 6184 in packetization mode 1), for engines that
// serve more viewers than this program: what is sent to them does not grow with their viewers.
#pragma once

#include <cstdint>
#include <functional>

#include "tools/web/bytes.h"
#include "tools/web/picture.h"
#include "tools/web/stream.h"

namespace nimbus::web {

namespace rtp {

inline constexpr std::size_t kHeader = 12;     ///< bytes, of every packet
inline constexpr std::size_t kLongest = 1200;  ///< bytes, header and all: fits every path whole
inline constexpr std::uint8_t kPayloadType = 96;

/// Where a sender begins, by RFC 3550 with random numbers.
struct Begin {
  std::uint32_t source = 0;
  std::uint32_t time = 0;      ///< added to the pictures' times
  std::uint16_t sequence = 0;  ///< of the first packet
};

/// False when a packet could not be sent; the rest of its picture is left out then.
using Sink = std::function<bool(Bytes)>;

class Packetizer {
 public:
  explicit Packetizer(Begin begin) : begin_(begin), packet_(kLongest) {}

  /// The packets of one picture, the last of them marked. `units` have start codes between them;
  /// the picture's time (microseconds) becomes one of 90 kHz. False when the sink was.
  bool send(Bytes units, std::uint64_t time, const Sink& sink);

 private:
  bool send_unit(Bytes unit, bool last, const Sink& sink);
  bool send_packet(std::size_t size, bool marked, const Sink& sink);

  Begin begin_;
  Buffer packet_;
  std::uint32_t timestamp_ = 0;
};

/// Is told the parameter sets of what is sent from now on, with start codes between them.
using Describe = std::function<void(Bytes)>;

}  // namespace rtp

/// Sends pictures to one receiver, and waits for nobody: what its way cannot take is dropped, up to
/// the next key picture. Of another stream than H.264 nothing is sent, which the console is told.
class RtpOutput final : public StreamListener {
 public:
  /// `send` never waits, and gives false when a packet cannot be taken now. `describe` may be null;
  /// it is called before a key picture, at most once in ten seconds.
  RtpOutput(rtp::Begin begin, rtp::Sink send, rtp::Describe describe);
  RtpOutput(const RtpOutput&) = delete;
  RtpOutput& operator=(const RtpOutput&) = delete;
  ~RtpOutput() override = default;

  void on_epoch(const SharedEpoch& epoch) override;
  void on_picture(const SharedPicture& picture) override;
  void on_waiting(Waiting /*reason*/) override {}

  /// Pictures of H.264 that were sent whole, and that were not.
  [[nodiscard]] std::uint64_t sent() const { return sent_; }
  [[nodiscard]] std::uint64_t dropped() const { return dropped_; }

 private:
  void tell_sets(std::uint64_t now);

  rtp::Packetizer packetizer_;
  rtp::Sink send_;
  rtp::Describe describe_;
  Buffer sets_;                // of the stream as it is
  Buffer told_;                // of the last description
  std::uint64_t told_at_ = 0;  // microseconds
  Kind kind_ = Kind::none;
  bool blocked_ = false;  // until a key picture
  std::uint64_t sent_ = 0;
  std::uint64_t dropped_ = 0;
};

}  // namespace nimbus::web
