#include "tools/ctl/watch.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <string>

#include "tools/common/text.h"
#include "tools/ctl/gap_counter.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/json.h"
#include "tools/ctl/messages.h"
#include "tools/ctl/output.h"

namespace nimbus::ctl {
namespace {

using tools::format_text;

constexpr std::chrono::seconds kVideoPeriod{1};
constexpr std::chrono::seconds kSilence{3};

double seconds_of(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

/// Seconds since 1970, to the millisecond.
double wall_clock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<double>(std::chrono::round<std::chrono::milliseconds>(now).count()) / 1000.0;
}

std::string clock_text(double time) {
  const auto seconds = static_cast<std::time_t>(time);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  const int milliseconds = static_cast<int>((time - static_cast<double>(seconds)) * 1000);
  return format_text("%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec,
                     milliseconds);
}

/// How much came.
struct Amount {
  std::uint64_t frames = 0;
  std::uint64_t bytes = 0;

  void add(std::size_t size) {
    ++frames;
    bytes += size;
  }
};

class Watch {
 public:
  explicit Watch(bool json) : json_(json) {}

  void take(const Frame& frame) {
    heard_ = Clock::now();
    silent_ = false;
    gaps_.take(frame.number);
    all_.add(frame.payload.size());
    if (frame.video) {
      video_.add(frame.payload.size());
      ++counts_["video"];
      return;
    }
    const Message message = decode_message(frame.payload);
    ++counts_[std::string(message.name)];
    if (json_) {
      print_line(json_of(message, wall_clock(), frame.number));
    } else {
      print_line(clock_text(wall_clock()) + "  #" + std::to_string(frame.number) + "  " +
                 text_of(message));
    }
  }

  /// When pass() has something to do.
  [[nodiscard]] Clock::time_point next_pass() const { return video_shown_ + kVideoPeriod; }

  /// Tells of the video of a second, and of silence.
  void pass() {
    const auto now = Clock::now();
    if (now >= next_pass()) show_video(now);
    if (!silent_ && now - heard_ > kSilence) {
      silent_ = true;
      print({"silence", {{"seconds", seconds_of(kSilence), " s"}}, {}},
            "silence: nothing came for 3 s; the service may have ended");
    }
  }

  void end() {
    const auto now = Clock::now();
    show_video(now);
    const double seconds = seconds_of(now - started_);
    if (json_) {
      print_line(summary_json(seconds));
      return;
    }
    print_line(format_text("%llu frames, %llu bytes in %.1f s", ull(all_.frames), ull(all_.bytes),
                           seconds));
    print_line(format_text(
        "frame counter: %llu gap(s), %llu missing, %llu repeated or late, %llu "
        "restart(s)",
        ull(gaps_.gaps()), ull(gaps_.missing()), ull(gaps_.late()), ull(gaps_.restarts())));
    for (const auto& [name, count] : counts_) {
      print_line(format_text("  %-16s %8llu  %7.1f/s", name.c_str(), ull(count),
                             static_cast<double>(count) / seconds));
    }
  }

 private:
  static unsigned long long ull(std::uint64_t number) { return number; }

  void print(const Message& message, const std::string& text) const {
    print_line(json_ ? json_of(message, wall_clock(), 0) : clock_text(wall_clock()) + "  " + text);
  }

  void show_video(Clock::time_point now) {
    const double seconds = seconds_of(now - video_shown_);
    video_shown_ = now;
    if (video_.frames == 0) return;
    constexpr double kBitsOfByte = 8e-6;
    const double megabits = static_cast<double>(video_.bytes) * kBitsOfByte / seconds;
    print({"video",
           {{"datagrams", static_cast<std::int64_t>(video_.frames), {}},
            {"bytes", static_cast<std::int64_t>(video_.bytes), {}},
            {"seconds", rounded(seconds), " s"}},
           {}},
          format_text("video: %llu datagrams, %llu bytes, %.2f Mbit/s", ull(video_.frames),
                      ull(video_.bytes), megabits));
    video_ = {};
  }

  [[nodiscard]] std::string summary_json(double seconds) const {
    const Json object = empty_object();
    const auto number = [&object](const char* name, std::uint64_t value) {
      cJSON_AddNumberToObject(object.get(), name, static_cast<double>(value));
    };
    add_text(object.get(), "message", "summary");
    cJSON_AddNumberToObject(object.get(), "seconds", rounded(seconds));
    number("frames", all_.frames);
    number("bytes", all_.bytes);
    number("gaps", gaps_.gaps());
    number("missing", gaps_.missing());
    number("late", gaps_.late());
    number("restarts", gaps_.restarts());
    cJSON* const counts = cJSON_AddObjectToObject(object.get(), "counts");
    for (const auto& [name, count] : counts_) {
      cJSON_AddNumberToObject(counts, name.c_str(), static_cast<double>(count));
    }
    return line_of(object.get());
  }

  bool json_;
  Clock::time_point started_ = Clock::now();
  Clock::time_point heard_ = started_;
  Clock::time_point video_shown_ = started_;
  bool silent_ = false;
  GapCounter gaps_;
  Amount all_;
  Amount video_;
  std::map<std::string, std::uint64_t> counts_;
};

}  // namespace

void watch(const Connection& connection, const WatchOptions& options) {
  ViewerLink link(connection);
  Watch watching(options.json);
  const auto end = end_after(options.seconds);
  while (!interrupted() && Clock::now() < end) {
    if (const auto frame = link.receive(std::min(end, watching.next_pass()))) watching.take(*frame);
    watching.pass();
    expect_reader();
  }
  watching.end();
}

}  // namespace nimbus::ctl
