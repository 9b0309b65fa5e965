#include "tools/web/mp4.h"

#include <algorithm>
#include <string_view>

namespace nimbus::web::mp4 {
namespace {

void append_zeros(Buffer& out, std::size_t count) { out.resize(out.size() + count); }

void append_64(Buffer& out, std::uint64_t number) {
  append_32(out, static_cast<std::uint32_t>(number >> 32U));
  append_32(out, static_cast<std::uint32_t>(number));
}

void append_text(Buffer& out, std::string_view text) {
  out.insert(out.end(), text.begin(), text.end());
}

/// A box that is open as long as this lives.
class Box {
 public:
  Box(Buffer& out, std::string_view type) : out_(out), at_(out.size()) {
    append_32(out, 0);
    append_text(out, type);
  }
  /// One with a version and flags.
  Box(Buffer& out, std::string_view type, std::uint8_t version, std::uint32_t flags)
      : Box(out, type) {
    append_32(out, std::uint32_t{version} << 24U | flags);
  }
  Box(const Box&) = delete;
  Box& operator=(const Box&) = delete;
  ~Box() {
    const auto size = static_cast<std::uint32_t>(out_.size() - at_);
    for (unsigned i = 0; i < 4; ++i) {
      out_[at_ + i] = static_cast<std::uint8_t>(size >> (24U - 8U * i));
    }
  }

 private:
  Buffer& out_;
  std::size_t at_;
};

constexpr std::uint32_t kOne = 0x10000;  // with 16 bits behind the point
constexpr std::uint32_t kTrack = 1;

/// No rotation, no scaling.
void append_matrix(Buffer& out) {
  for (const std::uint32_t number : {kOne, 0U, 0U, 0U, kOne, 0U, 0U, 0U, 0x40000000U}) {
    append_32(out, number);
  }
}

void append_file_type(Buffer& out) {
  const Box box(out, "ftyp");
  append_text(out, "iso5");
  append_32(out, 512);
  append_text(out, "iso5iso6mp41");
}

void append_movie_header(Buffer& out) {
  const Box box(out, "mvhd", 0, 0);
  append_zeros(out, 8);  // times of making
  append_32(out, kTimescale);
  append_32(out, 0);  // no duration: it is live
  append_32(out, kOne);
  append_16(out, 0x100);
  append_zeros(out, 10);
  append_matrix(out);
  append_zeros(out, 24);
  append_32(out, kTrack + 1);
}

void append_track_header(Buffer& out, const Entry& entry) {
  constexpr std::uint32_t kShown = 3;
  const Box box(out, "tkhd", 0, kShown);
  append_zeros(out, 8);
  append_32(out, kTrack);
  append_zeros(out, 4 + 4 + 8 + 8);
  append_matrix(out);
  append_32(out, entry.width << 16U);
  append_32(out, entry.height << 16U);
}

void append_media_header(Buffer& out) {
  constexpr std::uint32_t kNoLanguage = 0x55C4;
  const Box box(out, "mdhd", 0, 0);
  append_zeros(out, 8);
  append_32(out, kTimescale);
  append_32(out, 0);
  append_16(out, kNoLanguage);
  append_16(out, 0);
}

void append_handler(Buffer& out) {
  const Box box(out, "hdlr", 0, 0);
  append_zeros(out, 4);
  append_text(out, "vide");
  append_zeros(out, 12 + 1);
}

void append_sample_entry(Buffer& out, const Entry& entry) {
  constexpr std::uint32_t kDotsPerInch = 72;
  constexpr std::uint32_t kColourDepth = 24;
  const Box description(out, "stsd", 0, 0);
  append_32(out, 1);
  const Box sample(out, entry.type);
  append_zeros(out, 6);
  append_16(out, 1);
  append_zeros(out, 16);
  append_16(out, entry.width);
  append_16(out, entry.height);
  append_32(out, kDotsPerInch << 16U);
  append_32(out, kDotsPerInch << 16U);
  append_zeros(out, 4);
  append_16(out, 1);
  append_zeros(out, 32);
  append_16(out, kColourDepth);
  append_16(out, 0xFFFF);
  const Box configuration(out, entry.box);
  append(out, entry.configuration);
}

void append_sample_table(Buffer& out, const Entry& entry) {
  const Box table(out, "stbl");
  append_sample_entry(out, entry);
  for (const char* const type : {"stts", "stsc"}) {
    const Box box(out, type, 0, 0);
    append_32(out, 0);
  }
  {
    const Box box(out, "stsz", 0, 0);
    append_zeros(out, 8);
  }
  const Box box(out, "stco", 0, 0);
  append_32(out, 0);
}

void append_media_information(Buffer& out, const Entry& entry) {
  const Box information(out, "minf");
  {
    const Box box(out, "vmhd", 0, 1);
    append_zeros(out, 8);
  }
  {
    const Box box(out, "dinf");
    const Box references(out, "dref", 0, 0);
    append_32(out, 1);
    const Box here(out, "url ", 0, 1);
  }
  append_sample_table(out, entry);
}

void append_track(Buffer& out, const Entry& entry) {
  const Box track(out, "trak");
  append_track_header(out, entry);
  const Box media(out, "mdia");
  append_media_header(out);
  append_handler(out);
  append_media_information(out, entry);
}

void append_extension(Buffer& out) {
  const Box extends(out, "mvex");
  const Box box(out, "trex", 0, 0);
  append_32(out, kTrack);
  append_32(out, 1);
  append_zeros(out, 12);
}

void append_movie(Buffer& out, const Entry& entry) {
  const Box movie(out, "moov");
  append_movie_header(out);
  append_track(out, entry);
  append_extension(out);
}

constexpr std::size_t kHeadSize = 8;
constexpr std::size_t kFragmentSize = 100;

void append_run(Buffer& out, const Span& span, bool key, std::size_t size) {
  // Where the data is; and of each sample its duration, size and flags.
  constexpr std::uint32_t kHas = 0x1 | 0x100 | 0x200 | 0x400;
  constexpr std::uint32_t kDependsOnNone = 0x02000000;
  constexpr std::uint32_t kDependsAndNoSync = 0x01010000;
  const Box box(out, "trun", 0, kHas);
  append_32(out, 1);
  append_32(out, kFragmentSize + kHeadSize);
  append_32(out, span.duration);
  append_32(out, static_cast<std::uint32_t>(size));
  append_32(out, key ? kDependsOnNone : kDependsAndNoSync);
}

}  // namespace

void append_16(Buffer& out, std::uint32_t number) {
  out.push_back(static_cast<std::uint8_t>(number >> 8U));
  out.push_back(static_cast<std::uint8_t>(number));
}

void append_32(Buffer& out, std::uint32_t number) {
  append_16(out, number >> 16U);
  append_16(out, number & 0xFFFFU);
}

Buffer initialisation(const Entry& entry) {
  Buffer out;
  out.reserve(1024);
  append_file_type(out);
  append_movie(out, entry);
  return out;
}

void append_fragment_head(Buffer& out, std::uint32_t sequence, const Span& span, bool key,
                          std::size_t size) {
  constexpr std::uint32_t kFromThisBox = 0x20000;
  {
    const Box movie(out, "moof");
    {
      const Box box(out, "mfhd", 0, 0);
      append_32(out, sequence);
    }
    const Box track(out, "traf");
    {
      const Box box(out, "tfhd", 0, kFromThisBox);
      append_32(out, kTrack);
    }
    {
      const Box box(out, "tfdt", 1, 0);
      append_64(out, span.start);
    }
    append_run(out, span, key, size);
  }
  append_32(out, static_cast<std::uint32_t>(kHeadSize + size));
  append_text(out, "mdat");
}

}  // namespace nimbus::web::mp4
