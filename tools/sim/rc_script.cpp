#include "tools/sim/rc_script.h"

#include <algorithm>

#include "control/rc_map.h"
#include "tools/common/failure.h"
#include "tools/common/numbers.h"
#include "tools/common/text.h"

namespace nimbus::sim {
namespace {

using tools::Failure;
using tools::format_text;
using tools::parse_real;
using tools::parse_whole;
using Words = std::vector<std::string_view>;

/// The words of a line up to its comment; "=" is a word of its own, blanks around it or not.
Words split(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  line = line.substr(0, line.find('#'));
  Words words;
  for (;;) {
    const auto start = line.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) return words;
    line.remove_prefix(start);
    const auto end = line[0] == '=' ? 1 : line.find_first_of(" \t\r=");
    words.push_back(line.substr(0, end));
    line.remove_prefix(words.back().size());
  }
}

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

std::string function_words() {
  std::string text;
  for (const auto& row : kRcFunctionWords) {
    text += (text.empty() ? "" : ", ") + std::string(row.word);
  }
  return text;
}

class Parser {
 public:
  explicit Parser(const std::string& name) : name_(name) {}

  void line(std::string_view text) {
    ++number_;
    Words words = split(text);
    if (words.empty()) return;
    if (script_.loops) fail("stands behind 'loop'; expected nothing behind it");
    if (words[0] == "at") {
      at(words);
      words.erase(words.begin(), words.begin() + 2);
    }
    action(words);
    script_.length = now_;
  }

  RcScript finish() { return std::move(script_); }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw Failure(name_ + ":" + std::to_string(number_) + ": " + what);
  }

  double seconds(const Words& words) const {
    const auto value = words.size() > 1 ? parse_real(words[1]) : std::nullopt;
    if (!value || *value < 0) {
      fail(quoted(words[0]) + " without a time; expected a number of seconds behind it");
    }
    return *value;
  }

  void at(const Words& words) {
    const double time = seconds(words);
    if (time < now_) {
      fail(format_text("'at %g' goes back; expected %g seconds or later", time, now_));
    }
    now_ = time;
  }

  void action(const Words& words) {
    if (words.empty()) {
      fail("'at' without an action; expected state, channel, function, wait or loop");
    }
    const std::string_view word = words[0];
    if (word == "wait") {
      const double time = seconds(words);
      expect_size(words, 2, "wait SECONDS");
      now_ += time;
    } else if (word == "loop") {
      expect_size(words, 1, "loop");
      loop();
    } else if (word == "state") {
      state(words);
    } else if (word == "channel") {
      channel(words);
    } else if (word == "function") {
      function(words);
    } else {
      fail("unknown word " + quoted(word) +
           "; expected at, wait, state, channel, function or loop");
    }
  }

  void expect_size(const Words& words, std::size_t size, const char* form) const {
    if (words.size() < size) fail(std::string("the line is too short; expected '") + form + "'");
    if (words.size() > size) {
      fail(quoted(words[size]) + " is too much; expected '" + form + "'");
    }
  }

  void expect_assignment(const Words& words, std::size_t size, const char* form) const {
    expect_size(words, size, form);
    if (words[size - 2] != "=") {
      fail("no '=' before " + quoted(words[size - 1]) + "; expected '" + form + "'");
    }
  }

  void loop() {
    constexpr double kShortest = 0.02;
    if (now_ < kShortest) {
      fail("'loop' of a script that takes no time; expected a wait of 0.02 seconds or more before");
    }
    script_.loops = true;
  }

  void state(const Words& words) {
    constexpr unsigned kHighest = 255;
    expect_assignment(words, 3, "state = NUMBER");
    const auto value = parse_whole(words[2], 0, kHighest);
    if (!value) fail(quoted(words[2]) + " is no state; expected a number from 0 to 255");
    add({.what = RcStep::What::state, .value = *value});
  }

  void channel(const Words& words) {
    constexpr unsigned kHighest = 65535;
    expect_assignment(words, 4, "channel NUMBER = VALUE");
    const auto number = parse_whole(words[1], 1, kRcChannels);
    if (!number) fail(quoted(words[1]) + " is no channel; expected a number from 1 to 32");
    RcStep step{.what = RcStep::What::channel, .index = *number - 1};
    if (words[3] != "off") {
      const auto value = parse_whole(words[3], 0, kHighest);
      if (!value) {
        fail(quoted(words[3]) + " is no channel value; expected a number from 0 to 65535, or off");
      }
      step.value = *value;
    }
    add(step);
  }

  void function(const Words& words) {
    expect_assignment(words, 4, "function NAME = VALUE");
    const auto* const code = find_word(kRcFunctionWords, words[1]);
    if (code == nullptr) {
      fail("unknown function " + quoted(words[1]) + "; expected one of " + function_words());
    }
    RcStep step{.what = RcStep::What::function, .index = static_cast<std::size_t>(*code)};
    if (words[3] != "off") {
      step.value = parse_real(words[3]);
      if (!step.value || *step.value < -1 || *step.value > 1) {
        fail(quoted(words[3]) + " is no stick value; expected a number from -1 to 1, or off");
      }
    }
    add(step);
  }

  void add(RcStep step) {
    step.at = now_;
    script_.steps.push_back(step);
  }

  const std::string& name_;
  std::size_t number_ = 0;
  double now_ = 0;  // seconds
  RcScript script_;
};

template <typename Value>
std::optional<Value> as(const std::optional<double>& value) {
  if (!value) return {};
  return static_cast<Value>(*value);
}

void apply(const RcStep& step, RcReceiver& receiver) {
  switch (step.what) {
    case RcStep::What::state:
      receiver.state = as<std::uint8_t>(step.value).value_or(0);
      break;
    case RcStep::What::channel:
      receiver.channels.at(step.index) = as<std::uint16_t>(step.value);
      break;
    case RcStep::What::function:
      receiver.functions.at(step.index) = step.value;
      break;
  }
}

}  // namespace

RcScript parse_rc_script(std::string_view text, const std::string& name) {
  Parser parser(name);
  for (;;) {
    const auto end = text.find('\n');
    parser.line(text.substr(0, end));
    if (end == std::string_view::npos) return parser.finish();
    text.remove_prefix(end + 1);
  }
}

void RcPlayer::play(double seconds, RcReceiver& receiver) {
  for (;;) {
    while (next_ < script_.steps.size() && start_ + script_.steps[next_].at <= seconds) {
      apply(script_.steps[next_++], receiver);
    }
    if (!script_.loops || start_ + script_.length > seconds) return;
    start_ += script_.length;
    next_ = 0;
  }
}

}  // namespace nimbus::sim
