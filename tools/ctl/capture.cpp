#include "tools/ctl/capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/unique_fd.h"
#include "tools/common/failure.h"
#include "tools/common/progress_line.h"
#include "tools/common/version.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/output.h"
#include "tools/ctl/pcapng.h"

namespace nimbus::ctl {
namespace {

std::string counted(std::uint64_t count, const char* what) {
  return std::to_string(count) + " " + what;
}

/// The file, written as the datagrams come: whenever it ends, it is whole.
class CaptureFile {
 public:
  explicit CaptureFile(const std::string& path)
      : path_(path),
        file_(path == "-" ? dup(STDOUT_FILENO)
                          : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) {
    if (!file_) refuse("open");
    write_all(pcapng_start("nimbusctl " + tools::version_text()));
  }

  void add(Direction direction, tools::Endpoint from, tools::Endpoint to,
           std::span<const std::uint8_t> bytes) {
    std::uint64_t& count = direction == Direction::sent ? sent_ : received_;
    ++count;
    // Not the wall clock as it is now: it may be set while this runs.
    const auto time = start_wall_ + (Clock::now() - start_);
    write_all(pcapng_packet(time, direction, from, to, bytes));
  }

  /// Throws PipeClosed when the file is a pipe that nobody reads any more.
  void expect_reader() const {
    if (path_ == "-") ctl::expect_reader();
  }

  [[nodiscard]] std::string progress() const {
    return counted(received_, "received, ") + counted(sent_, "sent, ") +
           counted(bytes_, "bytes in ") + path_;
  }

 private:
  [[noreturn]] void refuse(const char* what) const {
    throw tools::Failure(std::string("cannot ") + what + " " + path_ + ": " + std::strerror(errno) +
                         "; expected a file that can be written, or -");
  }

  /// A block at a time, so that the file never ends within one while it can be written.
  void write_all(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
      const ssize_t written = write(file_.get(), bytes.data(), bytes.size());
      if (written < 0 && errno == EPIPE) throw PipeClosed();
      if (written < 0 && errno != EINTR) refuse("write");
      if (written < 0 && interrupted()) return;
      if (written <= 0) continue;
      bytes_ += static_cast<std::uint64_t>(written);
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
  }

  std::string path_;
  UniqueFd file_;
  Clock::time_point start_ = Clock::now();
  std::chrono::nanoseconds start_wall_ = std::chrono::system_clock::now().time_since_epoch();
  std::uint64_t received_ = 0;
  std::uint64_t sent_ = 0;
  std::uint64_t bytes_ = 0;
};

void record(CaptureFile& file, tools::ProgressLine& progress, const Connection& connection,
            double seconds) {
  constexpr std::chrono::milliseconds kGlance{200};
  ViewerLink link(connection, [&file](const Passing& one) {
    file.add(one.sent ? Direction::sent : Direction::received, one.from, one.to, one.datagram);
  });
  const auto end = end_after(seconds);
  auto glance = Clock::now();
  while (!interrupted() && Clock::now() < end) {
    link.receive(std::min(end, glance + kGlance));
    if (Clock::now() < glance + kGlance) continue;
    glance = Clock::now();
    progress.glance(file.progress());
    file.expect_reader();
  }
}

}  // namespace

void capture(const Connection& connection, const std::string& path, double seconds) {
  CaptureFile file(path);
  tools::ProgressLine progress;
  record(file, progress, connection, seconds);
  // Behind the last datagram: the viewer has left.
  progress.show(file.progress(), true);
}

}  // namespace nimbus::ctl
