#include "tools/ctl/film.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <filesystem>
#include <optional>

#include "base/unique_fd.h"
#include "tools/common/failure.h"
#include "tools/common/progress_line.h"
#include "tools/common/text.h"
#include "tools/ctl/interrupt.h"
#include "tools/web/stream.h"

namespace nimbus::ctl {
namespace {

/// Bytes that stay free: a disk that is filled to its end harms others.
constexpr std::uint64_t kReserve = 16ULL * 1024 * 1024;

constexpr double kMicroseconds = 1e6;

[[noreturn]] void refuse(const std::string& what, const std::string& path) {
  throw tools::Failure("cannot " + what + " " + path + ": " + std::strerror(errno) +
                       "; expected a new file in a folder that can be written");
}

/// One file. A fragment is a write, so that it ends between two of them whatever happens.
class FilmFile {
 public:
  FilmFile(const std::string& path, const web::Buffer& initialisation)
      : path_(path), file_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)) {
    if (!file_) refuse("make", path_);
    write_all(initialisation);
  }

  void add(const web::SharedPicture& picture, std::uint64_t until) {
    constexpr std::uint64_t kShortest = 1000;
    if (!first_) first_ = picture->arrival;
    const std::uint64_t start = std::max(picture->arrival - *first_, end_);
    const auto duration = static_cast<std::uint32_t>(
        std::clamp<std::uint64_t>(until - *first_, start + kShortest, start + UINT32_MAX) - start);
    const auto body = web::Picture::body(picture, web::Form::fmp4);
    web::Buffer fragment;
    web::mp4::append_fragment_head(fragment, ++fragments_, {start, duration}, picture->key,
                                   body->size());
    web::append(fragment, *body);
    write_all(fragment);
    end_ = start + duration;
  }

  [[nodiscard]] double seconds() const { return static_cast<double>(end_) / kMicroseconds; }

  [[nodiscard]] std::string told() const {
    return path_ + tools::format_text(": %u pictures, %.1f s, %" PRIu64 " bytes", fragments_,
                                      seconds(), bytes_);
  }

  /// Throws Failure when hardly anything is left where it lies.
  void expect_space() const {
    struct statvfs status {};
    if (fstatvfs(file_.get(), &status) != 0) return;
    const std::uint64_t left = std::uint64_t{status.f_bavail} * status.f_frsize;
    if (left >= kReserve) return;
    throw tools::Failure("no space is left for more; expected at least 16 MiB; " + told());
  }

 private:
  void write_all(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
      const ssize_t written = write(file_.get(), bytes.data(), bytes.size());
      if (written < 0 && errno != EINTR) refuse("write", path_);
      if (written <= 0) continue;
      bytes_ += static_cast<std::uint64_t>(written);
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
  }

  std::string path_;
  UniqueFd file_;
  std::optional<std::uint64_t> first_;  // when its first picture came
  std::uint64_t end_ = 0;               // microseconds from there
  std::uint32_t fragments_ = 0;
  std::uint64_t bytes_ = 0;
};

/// All films of a run. Each picture waits for the next one, which tells how long it is shown.
class Films final : public web::StreamListener {
 public:
  explicit Films(FilmOptions options) : options_(std::move(options)) {}

  void on_epoch(const web::SharedEpoch& epoch) override {
    finish();
    if (epoch->initialisation.empty()) {
      throw tools::Failure(std::string("the video is ") + web::name_of(epoch->kind) +
                           "; expected H.264 or H.265");
    }
    epoch_ = epoch;
  }

  void on_picture(const web::SharedPicture& picture) override {
    if (waits_) {
      usual_ = std::max(picture->arrival, waits_->arrival) - waits_->arrival;
      file_->add(waits_, picture->arrival);
    }
    waits_ = nullptr;
    if (picture->key && file_ && options_.split > 0 && file_->seconds() >= options_.split) finish();
    if (!file_) begin();
    waits_ = picture;
  }

  void on_waiting(web::Waiting /*unused*/) override {}

  /// Ends the film that is under way.
  void finish() {
    if (waits_) file_->add(waits_, waits_->arrival + usual_);
    waits_ = nullptr;
    if (file_) progress_.show(file_->told(), true);
    file_.reset();
  }

  void glance() const {
    if (!file_) return;
    file_->expect_space();
    progress_.glance(file_->told());
  }

  [[nodiscard]] bool any() const { return count_ > 0; }

 private:
  void begin() {
    std::filesystem::path path(options_.path);
    if (++count_ > 1) {
      const std::string name = path.stem().string() + "-" + std::to_string(count_);
      path.replace_filename(name + path.extension().string());
    }
    file_.emplace(path.string(), epoch_->initialisation);
    file_->expect_space();
  }

  FilmOptions options_;
  tools::ProgressLine progress_;
  web::SharedEpoch epoch_;
  std::optional<FilmFile> file_;
  web::SharedPicture waits_;
  std::uint64_t usual_ = 40'000;  // microseconds from the last picture but one to the last
  unsigned count_ = 0;
};

void follow(const Connection& connection, Films& films, double seconds) {
  constexpr std::chrono::milliseconds kGlance{200};
  ViewerLink link(connection);
  web::Stream stream(films, web::Ends::seen);
  const auto end = end_after(seconds);
  auto glance = Clock::now() + kGlance;
  while (!interrupted() && Clock::now() < end) {
    const auto frame = link.receive(std::min(end, glance));
    if (frame && frame->video) stream.video(frame->payload, frame->number, Clock::now());
    if (frame && !frame->video) stream.other(frame->number);
    if (Clock::now() < glance) continue;
    glance = Clock::now() + kGlance;
    films.glance();
  }
}

}  // namespace

void record_film(const Connection& connection, const FilmOptions& options, double seconds) {
  Films films(options);
  follow(connection, films, seconds);
  films.finish();
  if (!films.any()) {
    throw tools::Failure("no picture came to begin with; expected a camera that sends video");
  }
}

}  // namespace nimbus::ctl
