// Fragmented MP4 (ISO/IEC 14496-12 and -15), one fragment for each picture. What makes a browser
// show it at once: no duration of the whole anywhere, and a fragment that waits for no successor.
#pragma once

#include <cstdint>

#include "tools/web/bytes.h"

namespace nimbus::web::mp4 {

/// Units of time in a second.
inline constexpr std::uint32_t kTimescale = 1'000'000;

/// What a sample entry says: how pictures are coded, and how large they are.
struct Entry {
  const char* type;      ///< "avc1", "hvc1"
  const char* box;       ///< "avcC", "hvcC"
  Buffer configuration;  ///< the content of that box
  std::uint32_t width;
  std::uint32_t height;
};

[[nodiscard]] Buffer initialisation(const Entry& entry);

/// When a picture is shown, and how long.
struct Span {
  std::uint64_t start;
  std::uint32_t duration;
};

/// A fragment up to its picture's bytes: a movie fragment box, and the head of the media data.
/// Appends them to `out`.
void append_fragment_head(Buffer& out, std::uint32_t sequence, const Span& span, bool key,
                          std::size_t size);

/// Appends numbers, high byte first.
void append_16(Buffer& out, std::uint32_t number);
void append_32(Buffer& out, std::uint32_t number);

}  // namespace nimbus::web::mp4
