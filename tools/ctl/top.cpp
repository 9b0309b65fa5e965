#include "tools/ctl/top.h"

#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>

#include "tools/common/failure.h"
#include "tools/ctl/board_tap.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/top_screen.h"

namespace nimbus::ctl {
namespace {

/// The terminal, taken over and given back.
class Terminal {
 public:
  Terminal() {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
      throw tools::Failure("top shows a screen; expected a terminal (watch goes without)");
    }
    screen_ = newterm(nullptr, stdout, stdin);
    if (screen_ == nullptr) {
      const char* const name = std::getenv("TERM");
      throw tools::Failure("terminal '" + std::string(name != nullptr ? name : "") +
                           "' has no screen; expected TERM to name one such as xterm");
    }
    cbreak();
    noecho();
    curs_set(0);
    nodelay(stdscr, TRUE);
    keypad(stdscr, TRUE);
    if (has_colors()) take_colours();
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() {
    endwin();
    delscreen(screen_);
  }

  /// Whether somebody has pressed "q". A new size is seen here, too.
  static bool wants_end() {
    for (int key = getch(); key != ERR; key = getch()) {
      if (key == 'q' || key == 'Q') return true;
    }
    return false;
  }

  void show(TopScreen& screen) const {
    erase();
    const auto width = static_cast<std::size_t>(std::max(COLS, 1));
    const auto height = static_cast<std::size_t>(std::max(LINES, 1));
    int row = 0;
    for (const ScreenLine& line : screen.lines(Clock::now(), width, height)) {
      attrset(attribute(line.look));
      mvaddnstr(row++, 0, line.text.c_str(), COLS);
    }
    refresh();
  }

 private:
  static constexpr short kTitle = 1;
  static constexpr short kWarning = 2;

  void take_colours() {
    start_color();
    use_default_colors();
    init_pair(kTitle, COLOR_CYAN, -1);
    init_pair(kWarning, COLOR_RED, -1);
    colours_ = true;
  }

  [[nodiscard]] int attribute(Look look) const {
    if (look == Look::plain) return static_cast<int>(A_NORMAL);
    const chtype bold = look == Look::title ? A_BOLD : A_REVERSE;
    const short pair = look == Look::title ? kTitle : kWarning;
    return static_cast<int>(colours_ ? A_BOLD | static_cast<chtype>(COLOR_PAIR(pair)) : bold);
  }

  SCREEN* screen_ = nullptr;
  bool colours_ = false;
};

void listen(BoardTap& tap, TopScreen& screen) {
  while (const auto datagram = tap.next()) screen.overhear(*datagram, Clock::now());
}

}  // namespace

void show_top(const Connection& connection, double seconds) {
  constexpr std::chrono::milliseconds kGlance{100};
  ViewerLink link(connection);
  if (interrupted()) return;
  const Place& place = link.place();
  TopScreen screen(place.host + ":" + std::to_string(place.port), Clock::now());
  std::optional<BoardTap> tap;
  if (link.is_local()) tap.emplace(place.port);
  const Terminal terminal;
  const auto end = end_after(seconds);
  auto shown = Clock::time_point::min();
  while (!interrupted() && Clock::now() < end && !Terminal::wants_end()) {
    if (Clock::now() >= shown + kGlance || shown == Clock::time_point::min()) {
      terminal.show(screen);
      shown = Clock::now();
    }
    if (const auto frame = link.receive(std::min(end, shown + kGlance))) {
      screen.take(*frame, Clock::now());
    }
    if (tap) listen(*tap, screen);
  }
}

}  // namespace nimbus::ctl
