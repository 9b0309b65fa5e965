// nimbusctl: a viewer for the terminal.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/failure.h"
#include "tools/common/numbers.h"
#include "tools/common/text.h"
#include "tools/common/version.h"
#include "tools/ctl/accepts.h"
#include "tools/ctl/capture.h"
#include "tools/ctl/commands.h"
#include "tools/ctl/completion.h"
#include "tools/ctl/config_commands.h"
#include "tools/ctl/discover.h"
#include "tools/ctl/film.h"
#include "tools/ctl/hud.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/operate.h"
#include "tools/ctl/output.h"
#include "tools/ctl/settings.h"
#include "tools/ctl/top.h"
#include "tools/ctl/video.h"
#include "tools/ctl/viewer_link.h"
#include "tools/ctl/watch.h"

namespace nimbus::ctl {
namespace {

constexpr int kInterrupted = 130;  // as a shell has it

/// Everything that can stand on the command line.
struct Options {
  Connection connection;
  bool json = false;
  double seconds = 0;
  WatchOptions watch;
  HudOptions hud;
  FilmOptions film;
  OperateOptions operate;
  std::vector<std::string> texts;
  std::vector<std::string> values;
  std::array<std::int16_t, 3> speed{};
  std::string name;
};

/// What the command line asks for, and whether Ctrl-C is its natural end.
struct Task {
  std::function<void()> run;
  bool ends_by_interrupt = false;
};

/// Makes seconds of a number, with its unit behind it if need be; gives what is wrong with it.
std::string to_seconds(std::string& text) {
  static const std::map<std::string, double> kUnits{{"", 1},     {"s", 1},  {"ms", 0.001},
                                                    {"min", 60}, {"m", 60}, {"h", 3600}};
  const auto digits = text.find_first_not_of("0123456789.");
  const auto unit = kUnits.find(digits == std::string::npos ? "" : text.substr(digits));
  const auto number = tools::parse_real(std::string_view(text).substr(0, digits));
  const double seconds = number && unit != kUnits.end() ? *number * unit->second : 0;
  if (seconds <= 0) return "'" + text + "' is no time; expected such as 2, 2s or 500ms";
  // With all of its digits: little becomes no 0, which would be no end.
  text = tools::format_text("%.17g", seconds);
  return {};
}

CLI::Validator time_text() { return {to_seconds, "TIME"}; }

std::string example(const std::string& arguments) { return "Example: nimbusctl " + arguments; }

// --- The commands ------------------------------------------------------------------------------

/// Builds the command line. Each command says what is to be done by a Task.
class CommandLine {
 public:
  CommandLine()
      : app_("A viewer for the terminal: watches and operates Tervado Nimbus.", "nimbusctl") {
    // Of an option given twice, the last counts: scripts add their own behind those of others.
    app_.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app_.set_version_flag("--version", "nimbusctl " + tools::version_text(),
                          "Print the version and end");
    app_.set_help_flag("-h,--help", "Print this help and end");
    // At most one, so that the words behind it are never taken for another.
    app_.require_subcommand(0, 1);
    app_.fallthrough();
    app_.allow_extras();
    app_.footer("nimbusctl COMMAND --help tells more and gives an example.");
    auto& connection = options_.connection;
    app_.add_option("--host", connection.host,
                    "Where the service runs; without, and with none here, the only board that "
                    "announces itself on the network")
        ->envname("NIMBUS_HOST")
        ->capture_default_str();
    app_.add_option("--port", connection.port, "Its UDP port")
        ->check(CLI::Range(1, 65'535))
        ->capture_default_str();
    app_.add_option("--timeout", connection.timeout, "How long it may take to answer")
        ->transform(time_text())
        ->default_str("1.2");
    add_discover();
    add_watch();
    add_top();
    add_video();
    add_capture();
    add_hud();
    add_config();
    add_wifi();
    add_send();
    add_speed();
    add_operations();
  }

  /// What is to be done. Throws CLI::ParseError and Failure.
  Task parse(int argc, char** argv) {
    app_.parse(argc, argv);
    const bool anywhere = app_.count("--host") == 0 && app_.count("--port") == 0;
    options_.connection.elsewhere = anywhere ? only_board : nullptr;
    const auto extras = app_.remaining(true);
    if (task_.run && extras.empty()) return task_;
    std::string expected;
    for (const CLI::App* command : app_.get_subcommands(nullptr)) {
      append_word(expected, command->get_name());
    }
    if (task_.run)
      throw tools::Failure("unexpected '" + extras.front() + "'; expected what --help tells");
    const std::string what = extras.empty() ? "no command" : "no command '" + extras.front() + "'";
    throw tools::Failure(what + "; expected " + expected);
  }

  int exit(const CLI::Error& error) { return app_.exit(error); }

  /// What may stand in place of the last of these words: options where one is begun; else commands,
  /// and what their tables say.
  std::vector<std::string> choices(std::span<const std::string> words) {
    const auto before = words.first(words.size() - 1);
    const bool option = words.back().starts_with("--");
    std::vector<std::string> found;
    const CLI::App* at = &app_;
    for (std::size_t depth = 0; at != nullptr; ++depth) {
      if (option) add_options(found, *at, before.empty());
      if (!option && depth == before.size()) add_commands(found, *at);
      at = depth == before.size() ? nullptr : subcommand(*at, before[depth]);
    }
    if (!option) {
      for (std::string& each : choices_behind(before)) found.push_back(std::move(each));
    }
    return found;
  }

 private:
  static void add_seconds(CLI::App* command, double& seconds, const char* name = "--seconds") {
    command->add_option(name, seconds, "End after so long (default: at Ctrl-C)")
        ->transform(time_text());
  }

  void add_force(CLI::App* command) {
    command->add_flag("--force", options_.operate.force, "Send values as they are");
  }

  /// Makes the task what is to be done when the command is given.
  void on(CLI::App* command, std::function<void()> run) {
    on(command, Task{std::move(run), false});
  }

  /// The same for what a person ends with Ctrl-C.
  void until_interrupted(CLI::App* command, std::function<void()> run) {
    on(command, Task{std::move(run), true});
  }

  void on(CLI::App* command, Task task) {
    command->final_callback([this, task = std::move(task)] {
      if (!task_.run) task_ = task;
    });
  }

  void add_discover() {
    auto* const command =
        app_.add_subcommand("discover", "List the boards that announce themselves on the network");
    command->add_flag("--json", options_.json, "One JSON object on each line");
    command->add_option("--seconds", options_.seconds, "How long to wait for answers (default: 1)")
        ->transform(time_text());
    command->footer(example("discover"));
    on(command, [this] { discover(options_.seconds, options_.json); });
  }

  void add_watch() {
    auto* const command =
        app_.add_subcommand("watch", "Show what the service tells its viewers, message by message");
    command->add_flag("--json", options_.watch.json, "One JSON object on each line");
    add_seconds(command, options_.watch.seconds);
    command->footer(example("watch --seconds 10"));
    until_interrupted(command, [this] { watch(options_.connection, options_.watch); });
  }

  void add_top() {
    auto* const command = app_.add_subcommand("top", "Show on one screen what the service does");
    add_seconds(command, options_.seconds);
    command->footer(example("top"));
    until_interrupted(command, [this] { show_top(options_.connection, options_.seconds); });
  }

  void add_video() {
    auto* const command =
        app_.add_subcommand("video", "Write the video to standard output, or films");
    add_seconds(command, options_.seconds);
    auto* const film =
        command->add_option("--mp4", options_.film.path, "Write an MP4 file instead");
    film->type_name("FILE");
    command->add_option("--split", options_.film.split, "Begin another file after so long")
        ->transform(time_text())
        ->needs(film);
    command->footer(example("video | ffplay -") +
                    "\n         nimbusctl video --mp4 film.mp4 --split 10m");
    until_interrupted(command, [this] { video(); });
  }

  void video() const {
    if (options_.film.path.empty()) {
      show_video(options_.connection, options_.seconds);
    } else {
      record_film(options_.connection, options_.film, options_.seconds);
    }
  }

  void add_capture() {
    auto* const command =
        app_.add_subcommand("capture", "Write what a viewer receives and sends to a pcapng file");
    command->add_option("FILE", options_.name, "The file; - for standard output")->required();
    add_seconds(command, options_.seconds);
    command->footer(example("capture flight.pcapng --seconds 60"));
    until_interrupted(command,
                      [this] { capture(options_.connection, options_.name, options_.seconds); });
  }

  void add_hud() {
    auto* const command = app_.add_subcommand("hud", "Show the display region of this board");
    command->add_flag("--json", options_.hud.json, "As JSON, on one line");
    command->add_flag("--follow", options_.hud.follow, "Go on and show what changes");
    add_seconds(command, options_.hud.seconds);
    command->footer(example("hud --follow"));
    until_interrupted(command, [this] { show_hud(options_.hud); });
  }

  void add_config() {
    auto* const command = app_.add_subcommand("config", "Show or change the board's settings");
    command->require_subcommand(0, 1);
    command->fallthrough();
    command->add_flag("--json", options_.json, "The report as it comes");
    command->footer(example("config") + "\n         nimbusctl config set video_bitrate 2000000");
    add_config_set(command);
    on(command, [this] { show_config(options_.connection, options_.json); });
  }

  void add_config_set(CLI::App* config) {
    auto* const command =
        config->add_subcommand("set", "Change a setting and show what is different afterwards");
    command->add_option("NAME", options_.name, "The setting")->required();
    command->add_option("VALUE", options_.values, "Its values");
    add_force(command);
    std::string footer = "Settings:\n";
    for (const Setting& setting : all_settings()) footer += setting_line(setting) + "\n";
    footer += "  wifi NAME=VALUE...  the three networks at once; the rest stays. Names:\n     ";
    for (const WifiValue& value : wifi_values()) footer += " " + std::string(value.name);
    command->footer(footer + "\n\n" + example("config set hdmimode '1280x720@60p CEA'"));
    on(command, [this] {
      set_config(options_.connection, options_.name, options_.values, options_.operate.force);
    });
  }

  static std::string setting_line(const Setting& setting) {
    std::string line = "  " + std::string(setting.name) + names_of(setting.values);
    line.resize(std::max<std::size_t>(line.size() + 1, 38), ' ');
    return line + std::string(setting.help);
  }

  void add_wifi() {
    auto* const wifi = app_.add_subcommand("wifi", "Look for Wi-Fi networks");
    wifi->require_subcommand(0, 1);
    wifi->fallthrough();
    wifi->footer(example("wifi scan wlan0"));
    auto* const command = wifi->add_subcommand("scan", "List the networks that an interface hears");
    options_.name = "wlan0";
    command->add_option("IFACE", options_.name, interface_names(" or "))->default_str("wlan0");
    command->footer(example("wifi scan wlan0"));
    on(command, [this] { scan_wifi(options_.connection, options_.name); });
    on(wifi, [] { throw tools::Failure("wifi needs a word; expected scan"); });
  }

  void add_send() {
    auto* const command = app_.add_subcommand("send", "Send commands as JSON texts");
    command->add_option("TEXT", options_.texts, "A JSON object; - for the lines of standard input")
        ->required();
    command->footer(example(R"(send '{"cmd":"record","param":"start"}')"));
    on(command, [this] { send_texts(options_.connection, options_.texts); });
  }

  void add_speed() {
    auto* const command =
        app_.add_subcommand("speed", "Move the gimbal, and stop it; 4000 is full speed");
    const std::array<const char*, 3> names{"PAN", "TILT", "ROLL"};
    for (std::size_t i = 0; i < names.size(); ++i) {
      command->add_option(names[i], options_.speed[i], "From -32768 to 32767")->required();
    }
    add_seconds(command, options_.seconds, "--for");
    command->footer(example("speed 1000 -500 0 --for 2s"));
    until_interrupted(
        command, [this] { move_gimbal(options_.connection, options_.speed, options_.seconds); });
  }

  /// Every command of the table, by its first word.
  void add_operations() {
    std::set<std::string_view> known;
    for (const Command& row : all_commands()) {
      if (known.insert(first_word(row)).second) add_operation(std::string(first_word(row)));
    }
  }

  void add_operation(const std::string& word) {
    std::string help;
    std::string forms;
    std::string an_example;
    bool asks = false;
    for (const Command& row : all_commands()) {
      if (first_word(row) != word) continue;
      if (row.words == word) help = row.help;
      forms += form(row);
      asks = asks || row.asks == Asks::yes;
      if (an_example.empty() || !row.example.empty()) an_example = typed(row);
    }
    if (help.empty()) help = second_words(word);
    help[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(help[0])));
    auto* const command = app_.add_subcommand(word, help);
    command->add_option("VALUE", options_.values, "See below");
    add_force(command);
    if (asks) command->add_flag("--yes", options_.operate.yes, "Say that you mean it");
    command->footer("Forms:\n" + forms + "\n" + example(an_example));
    on(command, [this, word] {
      std::vector<std::string> arguments{word};
      arguments.insert(arguments.end(), options_.values.begin(), options_.values.end());
      operate(options_.connection, arguments, options_.operate);
    });
  }

  static const CLI::App* subcommand(const CLI::App& app, const std::string& name) {
    const auto all = app.get_subcommands(nullptr);
    const auto found = std::find_if(
        all.begin(), all.end(), [&name](const CLI::App* each) { return each->get_name() == name; });
    return found == all.end() ? nullptr : *found;
  }

  static void add_commands(std::vector<std::string>& found, const CLI::App& app) {
    for (const CLI::App* command : app.get_subcommands(nullptr)) {
      found.push_back(command->get_name());
    }
  }

  static void add_options(std::vector<std::string>& found, const CLI::App& app, bool version) {
    for (const CLI::Option* option : app.get_options()) {
      for (const std::string& name : option->get_lnames()) {
        if (name != "version" || version) found.push_back("--" + name);
      }
    }
  }

  /// A command with what its values may be.
  static std::string form(const Command& row) {
    std::string text = "  " + usage(row) + "\n      " + std::string(row.help) + "\n";
    for (const Argument& argument : row.arguments) {
      if (argument.name.empty()) break;
      text += "      " + std::string(argument.name) + ": " + argument.accepts->expected() + "\n";
    }
    return text;
  }

  /// A command as somebody could type it.
  static std::string typed(const Command& row) {
    std::string text(row.words);
    if (!row.example.empty()) text.append(" ").append(row.example);
    return row.asks == Asks::yes ? text + " --yes" : text;
  }

  static std::string second_words(std::string_view word) {
    std::string list;
    for (const Command& row : all_commands()) {
      if (first_word(row) == word) append_word(list, row.words.substr(word.size() + 1));
    }
    return list;
  }

  CLI::App app_;
  Options options_;
  Task task_;
};

int fail(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::fprintf(stderr, "nimbusctl: %s\n", text.c_str());
  return 1;
}

/// For the shell, and in no help: "nimbusctl completion WORD...". No options are looked for,
/// because the last word may be the beginning of one.
bool asks_for_completion(int argc, char** argv) {
  return argc > 2 && std::string_view(argv[1]) == "completion";
}

int run(int argc, char** argv) {
  catch_signals();
  CommandLine line;
  try {
    if (asks_for_completion(argc, argv)) {
      const std::vector<std::string> words(argv + 2, argv + argc);
      for (const std::string& choice : line.choices(words)) print_line(choice);
      return 0;
    }
    const Task task = line.parse(argc, argv);
    task.run();
    return interrupted() && !task.ends_by_interrupt ? kInterrupted : 0;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return line.exit(error);
    return fail(std::string(error.what()) + "; nimbusctl --help tells what is expected");
  } catch (const PipeClosed&) {
    return 0;
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}

}  // namespace
}  // namespace nimbus::ctl

int main(int argc, char** argv) {
  try {
    return nimbus::ctl::run(argc, argv);
  } catch (...) {
    std::fputs("nimbusctl: out of memory\n", stderr);
    return 1;
  }
}
