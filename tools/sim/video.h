// A video stream in datagrams: an H.264 byte stream, cut without regard to what stands in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tools/sim/frame.h"

namespace nimbus::sim {

/// How fast a file is sent.
struct FramesPerSecond {
  double value;
};
struct BitsPerSecond {
  double value;
};
using Pace = std::variant<FramesPerSecond, BitsPerSecond>;

/// A piece of a stream, and when it is due.
struct Cut {
  std::size_t at;    ///< bytes from the stream's start
  std::size_t size;  ///< bytes
  double due;        ///< seconds from the stream's start
};

/// A stream cut into datagrams.
struct Cuts {
  std::vector<Cut> cuts;
  double length = 0;  ///< seconds
};

/// Where the pictures of an H.264 byte stream start, each with what precedes its first slice; none
/// where no picture is found. What stands before the first one belongs to it.
[[nodiscard]] std::vector<std::size_t> find_pictures(Bytes stream);

/// Cuts a stream into datagrams of at most `datagram` bytes. By frames a second, the datagrams of
/// each picture are spread over its time, and none has parts of two. Throws Failure when pictures
/// are to be paced and none are found.
[[nodiscard]] Cuts cut_stream(Bytes stream, std::size_t datagram, const Pace& pace);

/// Plays a file.
class VideoFile {
 public:
  /// Reads the file whole. Throws Failure when it cannot be read, is empty, or cannot be paced.
  VideoFile(const std::string& path, std::size_t datagram, const Pace& pace, bool loops);

  /// The next datagram that is due so many seconds after the start, or nothing.
  [[nodiscard]] std::optional<Bytes> next(double seconds);
  /// Whether everything has been sent, and it does not loop.
  [[nodiscard]] bool ended() const { return !loops_ && next_ == cuts_.cuts.size(); }

 private:
  std::vector<std::uint8_t> stream_;
  Cuts cuts_;
  bool loops_;
  std::size_t next_ = 0;
  double start_ = 0;  // of this round, seconds
};

/// The whole content of a file. Throws Failure.
[[nodiscard]] std::vector<std::uint8_t> read_file(const std::string& path);

}  // namespace nimbus::sim
