// The service's video datagrams -> pictures that can be shown.
//
// What a decoder would show torn is dropped: after a loss, everything up to the next key picture,
// because the camera cannot be asked for one. A loss in the numbers of frames may concern no video
// at all; where the pictures' own numbers show that none is missing, none is dropped.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "tools/web/assembler.h"
#include "tools/web/codec.h"
#include "tools/web/frame_numbers.h"
#include "tools/web/picture.h"

namespace nimbus::web {

/// Who is told of pictures.
class StreamListener {
 public:
  StreamListener() = default;
  StreamListener(const StreamListener&) = delete;
  StreamListener& operator=(const StreamListener&) = delete;
  virtual ~StreamListener() = default;
  virtual void on_epoch(const SharedEpoch& epoch) = 0;
  virtual void on_picture(const SharedPicture& picture) = 0;
  virtual void on_waiting(Waiting reason) = 0;
};

/// What has been counted since the start.
struct StreamCounts {
  std::uint64_t datagrams = 0;
  std::uint64_t bytes = 0;
  std::uint64_t gaps = 0;     ///< places where frames of the service lack
  std::uint64_t missing = 0;  ///< frames that lack there
  std::uint64_t pictures = 0;
  std::uint64_t key_pictures = 0;
  std::uint64_t discarded = 0;  ///< pictures that came and were dropped
  std::uint64_t torn = 0;       ///< pictures whose end was seen too early
};

class Stream {
 public:
  // What is kept for browsers that join: one that has to catch up with more would not.
  static constexpr std::size_t kMostKept = 600;  ///< pictures
  static constexpr std::size_t kMostKeptBytes = std::size_t{4} * 1024 * 1024;

  explicit Stream(StreamListener& listener, Ends ends = Ends::guessed);

  /// Takes a frame of the service: a datagram of video, or anything else, whose number counts too.
  void video(Bytes datagram, std::uint32_t number, Time now);
  void other(std::uint32_t number);

  /// When pass_time() is due; nothing while nothing waits.
  [[nodiscard]] std::optional<Time> deadline() const { return assembler_.deadline(); }

  /// Ends the picture that has waited long enough; sees silence. Any time, and once a second.
  void pass_time(Time now);

  /// The service is gone, or another one.
  void interrupt();

  [[nodiscard]] const SharedEpoch& epoch() const { return epoch_; }
  [[nodiscard]] Waiting waiting() const { return waiting_; }
  [[nodiscard]] const StreamCounts& counts() const { return counts_; }

  /// The pictures since the last key picture: what a browser needs that joins.
  [[nodiscard]] const std::vector<SharedPicture>& group() const { return group_; }

 private:
  Buffer detect(Bytes datagram);
  void decide(Kind kind);
  void take_units();
  void take(const AccessUnit& unit);
  void discard(Waiting reason);
  void tell(Waiting reason);
  void begin_epoch(const Epoch& epoch);
  void publish(const AccessUnit& unit, Look look);
  void keep(const SharedPicture& picture);
  [[nodiscard]] mp4::Span next_span(Time first) const;

  StreamListener& listener_;
  Assembler assembler_;
  Assembler::Units units_;
  FrameNumbers numbers_;
  bool gap_ = false;
  StreamCounts counts_;

  Kind kind_ = Kind::none;
  std::unique_ptr<Codec> codec_;
  Buffer undecided_;  // what has come of a stream of unknown kind
  std::size_t undecided_datagrams_ = 0;
  std::optional<Time> last_video_;

  SharedEpoch epoch_;
  bool blocked_ = true;  // until a key picture
  Waiting waiting_ = Waiting::key;
  std::uint32_t next_number_ = 0;
  std::uint64_t end_ = 0;  // of the last picture's time
  std::vector<SharedPicture> group_;
  std::size_t group_bytes_ = 0;
};

}  // namespace nimbus::web
