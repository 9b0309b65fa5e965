// What goes to browsers: streams and their pictures, each made once and shared by all.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tools/web/bytes.h"
#include "tools/web/mp4.h"

namespace nimbus::web {

/// What kind of stream the camera's bridge sends.
enum class Kind : std::uint8_t { none, h264, h265, mpeg_ts, unknown };

[[nodiscard]] const char* name_of(Kind kind);

/// Why there are no pictures.
enum class Waiting : std::uint8_t { no, key, loss, silence };

[[nodiscard]] const char* name_of(Waiting waiting);

/// A stream with one set of parameters.
struct Epoch {
  std::uint32_t number = 0;
  Kind kind = Kind::none;
  std::string codec;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  Buffer initialisation;
  Buffer parameter_sets;  ///< with start codes, for key pictures that come without them
};

/// How a browser wants its pictures.
enum class Form : std::uint8_t { fmp4, raw };

using SharedBytes = std::shared_ptr<const Buffer>;

/// Microseconds from one picture to the next; a pause that is longer is a hole.
inline constexpr std::uint64_t kLongestPause = 60'000'000;

/// One picture.
class Picture {
 public:
  std::uint32_t number = 0;
  std::uint32_t epoch = 0;
  bool key = false;
  std::uint64_t arrival = 0;  ///< microseconds on the server's clock
  mp4::Span span{};           ///< when it is shown, if the one before it was, too
  Buffer units;               ///< with start codes of four bytes

  [[nodiscard]] std::uint64_t end() const { return span.start + span.duration; }

  /// The bytes behind the head of a message, as `form` has them. Made for the first that asks and
  /// shared as long as anybody has them.
  [[nodiscard]] static SharedBytes body(const std::shared_ptr<const Picture>& picture, Form form);

 private:
  [[nodiscard]] Buffer with_lengths() const;
  mutable std::weak_ptr<const Buffer> with_lengths_;
};

using SharedPicture = std::shared_ptr<const Picture>;
using SharedEpoch = std::shared_ptr<const Epoch>;

/// The head of a binary message.
struct MessageHead {
  enum class What : std::uint8_t { initialisation = 1, picture = 2 };
  What what;
  bool key;
  bool after_gap;
  std::uint32_t epoch;
  std::uint32_t number;
  std::uint64_t arrival;
};

void append_head(Buffer& out, const MessageHead& head);

}  // namespace nimbus::web
