#include "tools/sim/video.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"
#include "tools/common/failure.h"

namespace nimbus::sim {
namespace {

using tools::Failure;

/// Sees in a stream's units where pictures start.
class PictureFinder {
 public:
  /// A unit that starts at `at`, by its first two bytes.
  void unit(std::size_t at, std::uint8_t header, std::uint8_t second) {
    const unsigned type = header & 0x1FU;
    const bool slice = type >= 1 && type <= 5;
    // The first slice of a picture starts with its macroblock 0, coded as a single bit of 1.
    const bool starts = slice ? (second & 0x80U) != 0 : type >= 6 && type <= 9;
    if (starts && !in_head_) {
      head_ = at;
      in_head_ = true;
    }
    if (slice && in_head_) {
      pictures_.push_back(pictures_.empty() ? 0 : head_);
      in_head_ = false;
    }
  }
  std::vector<std::size_t> take() { return std::move(pictures_); }

 private:
  std::vector<std::size_t> pictures_;
  std::size_t head_ = 0;
  bool in_head_ = false;  // between the start of a picture and its first slice
};

/// Cuts the part of a stream, and spreads the pieces over so many seconds.
void cut_part(std::size_t at, std::size_t end, std::size_t datagram, double due, double seconds,
              std::vector<Cut>& cuts) {
  const std::size_t count = (end - at + datagram - 1) / datagram;
  for (std::size_t n = 0; n < count; ++n, at += datagram) {
    cuts.push_back({at, std::min(datagram, end - at),
                    due + seconds * static_cast<double>(n) / static_cast<double>(count)});
  }
}

}  // namespace

std::vector<std::size_t> find_pictures(Bytes stream) {
  PictureFinder finder;
  for (std::size_t i = 0; i + 4 < stream.size(); ++i) {
    if (stream[i] != 0 || stream[i + 1] != 0 || stream[i + 2] != 1) continue;
    const bool long_start = i > 0 && stream[i - 1] == 0;
    finder.unit(long_start ? i - 1 : i, stream[i + 3], stream[i + 4]);
  }
  return finder.take();
}

Cuts cut_stream(Bytes stream, std::size_t datagram, const Pace& pace) {
  Cuts result;
  if (const auto* const bits = std::get_if<BitsPerSecond>(&pace)) {
    result.length = static_cast<double>(stream.size()) * 8 / bits->value;
    cut_part(0, stream.size(), datagram, 0, result.length, result.cuts);
    return result;
  }
  auto pictures = find_pictures(stream);
  if (pictures.empty()) {
    throw Failure("no pictures found; expected an H.264 byte stream, or a bitrate to send it at");
  }
  const double seconds = 1 / std::get<FramesPerSecond>(pace).value;
  result.length = seconds * static_cast<double>(pictures.size());
  pictures.push_back(stream.size());
  for (std::size_t n = 0; n + 1 < pictures.size(); ++n) {
    cut_part(pictures[n], pictures[n + 1], datagram, seconds * static_cast<double>(n), seconds,
             result.cuts);
  }
  return result;
}

std::vector<std::uint8_t> read_file(const std::string& path) {
  const auto refuse = [&path] {
    return Failure("cannot read " + path + ": " + std::strerror(errno));
  };
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throw refuse();
  std::vector<std::uint8_t> content;
  std::array<std::uint8_t, 65536> buffer;
  for (;;) {
    const ssize_t size = read(file.get(), buffer.data(), buffer.size());
    if (size < 0 && errno != EINTR) throw refuse();
    if (size == 0) return content;
    if (size > 0) content.insert(content.end(), buffer.begin(), buffer.begin() + size);
  }
}

VideoFile::VideoFile(const std::string& path, std::size_t datagram, const Pace& pace, bool loops)
    : stream_(read_file(path)), loops_(loops) {
  if (stream_.empty()) throw Failure(path + " is empty; expected an H.264 byte stream");
  try {
    cuts_ = cut_stream(stream_, datagram, pace);
  } catch (const Failure& failure) {
    throw Failure(path + ": " + failure.what());
  }
}

std::optional<Bytes> VideoFile::next(double seconds) {
  if (next_ == cuts_.cuts.size()) {
    if (!loops_) return {};
    next_ = 0;
    start_ += cuts_.length;
  }
  const Cut& cut = cuts_.cuts[next_];
  if (start_ + cut.due > seconds) return {};
  ++next_;
  return Bytes(stream_).subspan(cut.at, cut.size);
}

}  // namespace nimbus::sim
