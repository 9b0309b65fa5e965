// nimbus-sim: a simulated camera with its bridge and an RC receiver.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>

#include "base/word_table.h"
#include "net/udp_link.h"
#include "tools/common/failure.h"
#include "tools/common/numbers.h"
#include "tools/common/text.h"
#include "tools/common/version.h"
#include "tools/sim/console.h"
#include "tools/sim/simulator.h"

namespace nimbus::sim {
namespace {

using tools::format_text;
using tools::parse_real;
using tools::parse_whole;

constexpr const char* kExamples = R"(Examples:
  nimbus-sim --verbose
      reports of a camera at rest; shows every command that the service sends
  nimbus-sim --video flight.h264 --fps 30
      the same with a video, over and over again
  ffmpeg -re -f lavfi -i testsrc2=size=640x360:rate=25 -c:v libx264 -tune zerolatency \
      -f h264 - | nimbus-sim --video -
      a live test pattern
  nimbus-sim --rc sticks.rc --seconds 30
      plays an RC receiver for half a minute
  nimbus-sim --faults drop=0.05,corrupt=0.02 --seed 7
      a bad link between camera and service
  nimbus-sim --replay flight.pcapng --speed 4
      what a recording holds, four times as fast

nimbus-sim(1) describes RC scripts.)";

std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// The library's own checks take "nan" for a number and say less of what is expected.

double positive(const std::string& option, const std::string& text) {
  const auto value = parse_real(text);
  if (!value || *value <= 0) {
    throw tools::Failure(option + " '" + text + "'; expected a number above 0");
  }
  return *value;
}

unsigned whole(const std::string& option, const std::string& text, unsigned lowest,
               unsigned highest) {
  const auto value = parse_whole(text, lowest, highest);
  if (!value) {
    throw tools::Failure(option + " '" + text +
                         format_text("'; expected a whole number from %u to %u", lowest, highest));
  }
  return *value;
}

/// The options as they are typed.
struct Arguments {
  std::string seconds;
  std::string datagram;
  std::string fps;
  std::string bitrate;
  std::string faults;
  std::string seed;
  std::string lose_subject;
  std::string replay;
  std::string speed;
  std::string from;
  std::string to;
  std::string only;
  bool loop = false;
  int verbose = 0;
  bool once = false;
  bool no_reports = false;
};

/// Seconds, 0 among them.
double moment(const std::string& option, const std::string& text) {
  const auto value = parse_real(text);
  if (!value || *value < 0) {
    throw tools::Failure(option + " '" + text + "'; expected seconds from the recording's start");
  }
  return *value;
}

double speed_of(const std::string& text) {
  constexpr double kSlowest = 0.1;
  constexpr double kFastest = 100;
  const auto value = parse_real(text);
  if (!value || *value < kSlowest || *value > kFastest) {
    throw tools::Failure("--speed '" + text + "'; expected a number from 0.1 to 100");
  }
  return *value;
}

constexpr std::array<Word<Link>, 2> kLinks{{{"data", Link::data}, {"video", Link::video}}};

Link link_of(const std::string& text) {
  const auto* const link = find_word(kLinks, text);
  if (link == nullptr) throw tools::Failure("--only '" + text + "'; expected data or video");
  return *link;
}

ReplayOptions replay_options(const Arguments& arguments) {
  ReplayOptions replay;
  replay.path = arguments.replay;
  replay.loops = arguments.loop;
  if (!arguments.speed.empty()) replay.speed = speed_of(arguments.speed);
  if (!arguments.from.empty()) replay.from = moment("--from", arguments.from);
  if (!arguments.to.empty()) replay.to = moment("--to", arguments.to);
  if (!arguments.only.empty()) replay.only = link_of(arguments.only);
  if (replay.to <= replay.from) {
    throw tools::Failure("--to '" + arguments.to + "'; expected more than --from");
  }
  return replay;
}

void take_arguments(const Arguments& arguments, Options& options) {
  if (!arguments.seconds.empty()) options.seconds = positive("--seconds", arguments.seconds);
  if (!arguments.datagram.empty()) {
    options.datagram = whole("--datagram", arguments.datagram, 1, kMaxDatagram);
  }
  if (!arguments.fps.empty()) options.pace = FramesPerSecond{positive("--fps", arguments.fps)};
  if (!arguments.bitrate.empty()) {
    options.pace = BitsPerSecond{positive("--bitrate", arguments.bitrate)};
  }
  if (!arguments.seed.empty()) options.seed = whole("--seed", arguments.seed, 0, UINT32_MAX);
  if (!arguments.lose_subject.empty()) {
    options.lose_subject = positive("--lose-subject", arguments.lose_subject);
  }
  if (!arguments.faults.empty()) {
    try {
      options.faults = parse_fault_rates(arguments.faults);
    } catch (const tools::Failure& failure) {
      throw tools::Failure(std::string("--faults: ") + failure.what());
    }
  }
  if (arguments.verbose > 0) options.detail = FrameLog::Detail::summary;
  if (arguments.verbose > 1) options.detail = FrameLog::Detail::every_frame;
  if (!arguments.replay.empty()) options.replay = replay_options(arguments);
  options.loops = !arguments.once;
  options.reports = !arguments.no_reports;
}

void declare_replay(CLI::App& app, Arguments& arguments) {
  auto* const replay =
      app.add_option("--replay", arguments.replay,
                     "send what a recording (pcap or pcapng) holds, in place of reports and video")
          ->type_name("FILE")
          ->group("Replay");
  for (const char* const other :
       {"--no-reports", "--lose-subject", "--video", "--scene", "--faults"}) {
    replay->excludes(app.get_option(other));
  }
  const auto add = [&app, replay](const char* name, std::string& value, const char* type,
                                  const char* help) {
    app.add_option(name, value, help)->type_name(type)->needs(replay)->group("Replay");
  };
  add("--speed", arguments.speed, "N", "so many times as fast, 0.1 to 100 (default: 1)");
  add("--from", arguments.from, "N", "begin so many seconds behind the recording's start");
  add("--to", arguments.to, "N", "end so many seconds behind the recording's start");
  add("--only", arguments.only, "data|video", "send one of the two only");
  app.add_flag("--loop", arguments.loop, "over and over again")->needs(replay)->group("Replay");
}

void declare_video(CLI::App& app, Options& options, Arguments& arguments) {
  auto* const video = app.add_option("--video", options.video,
                                     "send this H.264 byte stream; - is standard input, sent as it "
                                     "comes")
                          ->type_name("FILE")
                          ->group("Video");
  app.add_flag("--scene", options.scene,
               "send a picture of a landscape that follows the gimbal, coded by ffmpeg")
      ->excludes(video)
      ->group("Video");
  const auto add = [&app, video](const char* name, std::string& value, const char* type,
                                 const char* help) {
    return app.add_option(name, value, help)->type_name(type)->needs(video)->group("Video");
  };
  add("--datagram", arguments.datagram, "BYTES", "cut it into so many bytes (default: 1400)");
  auto* const fps =
      add("--fps", arguments.fps, "N", "send so many pictures of a file a second (default: 25)");
  add("--bitrate", arguments.bitrate, "N", "send so many bits of a file a second instead")
      ->excludes(fps);
  app.add_flag("--once", arguments.once, "end with the file instead of sending it again")
      ->needs(video)
      ->group("Video");
}

void declare_faults(CLI::App& app, Arguments& arguments) {
  auto* const faults =
      app.add_option("--faults", arguments.faults,
                     "damage reports: drop=RATE,corrupt=RATE,truncate=RATE,repeat=RATE, each from "
                     "0 to 1")
          ->type_name("LIST")
          ->group("Faults");
  app.add_option("--seed", arguments.seed, "the same seed brings the same faults (default: 1)")
      ->type_name("N")
      ->needs(faults)
      ->group("Faults");
}

void declare(CLI::App& app, Options& options, Arguments& arguments) {
  app.add_option("--host", options.host, "where the service runs (default: 127.0.0.1)")
      ->type_name("HOST");
  app.add_option("--seconds", arguments.seconds, "end after so long (default: at Ctrl-C)")
      ->type_name("N");
  app.add_flag(
      "-v,--verbose", arguments.verbose,
      "show every frame that the service sends; equal speeds only once, unless given twice");
  app.add_flag("--no-reports", arguments.no_reports,
               "send no reports, only what tells the service where the camera is");
  app.add_option("--lose-subject", arguments.lose_subject,
                 "lose a tracked subject after so many seconds (default: never)")
      ->type_name("N");
  declare_video(app, options, arguments);
  app.add_option("--rc", options.rc, "play an RC receiver by this script")
      ->type_name("SCRIPT")
      ->group("Receiver");
  declare_faults(app, arguments);
  declare_replay(app, arguments);
}

int run(int argc, char** argv) {
  CLI::App app("A simulated camera with its bridge, and an RC receiver, for the service.",
               "nimbus-sim");
  Options options;
  Arguments arguments;
  declare(app, options, arguments);
  app.set_version_flag("--version", "nimbus-sim " + tools::version_text());
  app.footer(kExamples);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    complain(one_line(error.what()) + "; nimbus-sim --help shows what is expected");
    return EXIT_FAILURE;
  }
  take_arguments(arguments, options);
  Simulator(options).run();
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace nimbus::sim

int main(int argc, char** argv) {
  nimbus::sim::open_standard_streams();
  try {
    return nimbus::sim::run(argc, argv);
  } catch (const nimbus::sim::AlreadySaid&) {
    return EXIT_FAILURE;
  } catch (const std::exception& failure) {
    nimbus::sim::complain(failure.what());
    return EXIT_FAILURE;
  }
}
