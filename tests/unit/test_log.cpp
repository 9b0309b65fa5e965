#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <latch>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using test::Console;
using test::StandardError;
using test::Texts;

constexpr std::size_t kLongest = 1023;

TEST(Log, WritesEachTextOnce) {
  Console console;
  log_text("Init network... ");
  log_text("done\n");
  log_text("two\nlines\n");
  EXPECT_EQ(console.texts(), (Texts{"Init network... ", "done\n", "two\nlines\n"}));
}

TEST(Log, FormatsItsArguments) {
  Console console;
  log_text("Client %s:%d removed\n", "127.0.0.1", 4242);
  log_text("%u %lld %zu %c 100%%\n", 4'294'967'295U, -1LL, std::size_t{3}, 'x');
  EXPECT_EQ(console.texts(),
            (Texts{"Client 127.0.0.1:4242 removed\n", "4294967295 -1 3 x 100%\n"}));
}

TEST(Log, AnArgumentIsNeverAFormat) {
  Console console;
  log_text("%s", "100% %s%n%d%1$s%%\n");
  EXPECT_EQ(console.texts(), Texts{"100% %s%n%d%1$s%%\n"});
}

TEST(Log, CutsALongText) {
  for (const std::size_t length : {kLongest - 1, kLongest, kLongest + 1, std::size_t{100'000}}) {
    SCOPED_TRACE(length);
    Console console;
    std::string text;
    while (text.size() < length) text += "0123456789";
    text.resize(length);
    log_text("%s", text.c_str());
    EXPECT_EQ(console.texts(), Texts{text.substr(0, kLongest)});
  }
}

TEST(Log, AnEmptyTextIsNoWrite) {
  Console console;
  log_text("%s", "");
  log_text("x");
  EXPECT_EQ(console.texts(), Texts{"x"});
}

TEST(Log, JoinsTextsInOneWrite) {
  Console console;
  log_parts({"1", "2", "3", "", "4", "5", "6", "7", "8", "the ninth"});
  log_parts({std::string_view("abc").substr(1, 1)});
  log_parts({"", ""});
  log_parts({});
  EXPECT_EQ(console.texts(), (Texts{"12345678the ninth", "b"}));
}

TEST(Log, WritesALongTextInPieces) {
  const std::string piece(PIPE_BUF, 'x');
  Console console;
  log_parts({piece, ""});
  log_parts({piece, "\n"});
  log_parts({"scan results: ", piece + piece + piece, "100%s\n"});
  const std::string start = "scan results: ";
  EXPECT_EQ(console.texts(), (Texts{piece, piece, "\n", start + piece.substr(start.size()), piece,
                                    piece, std::string(start.size(), 'x') + "100%s\n"}));
}

TEST(Log, PrintsToStandardOutput) {
  std::array<int, 2> ends{-1, -1};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const UniqueFd reader(ends[0]);
  const UniqueFd writer(ends[1]);
  const UniqueFd saved(dup(STDOUT_FILENO));
  std::fflush(stdout);
  dup2(writer.get(), STDOUT_FILENO);
  print_parts({"Set RC1 mode ", "1", "\n"});
  dup2(saved.get(), STDOUT_FILENO);
  std::array<char, 64> text{};
  const ssize_t length = read(reader.get(), text.data(), text.size());
  EXPECT_EQ(std::string_view(text.data(), static_cast<std::size_t>(length)), "Set RC1 mode 1\n");
}

TEST(Log, SurvivesAClosedConsole) {
  const StandardError closed(-1);
  log_text("nobody sees this\n");
  log_parts({"nor", "this\n"});
}

TEST(Log, SurvivesAFullConsole) {
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(full);
  const StandardError redirected(full.get());
  log_text("nobody sees this\n");
}

/// With the signal handled as the service handles it.
TEST(Log, SurvivesAConsoleWithoutReader) {
  const auto before = std::signal(SIGPIPE, [](int) {});
  std::array<int, 2> ends{-1, -1};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  UniqueFd reader(ends[0]);
  const UniqueFd writer(ends[1]);
  reader = UniqueFd();
  {
    const StandardError redirected(writer.get());
    log_text("nobody sees this\n");
  }
  std::signal(SIGPIPE, before);
}

/// Takes the place of standard error: a pipe that is full of "#".
class FullPipe {
 public:
  FullPipe() {
    while (write(writer_.get(), piece().data(), PIPE_BUF) > 0) {
    }
    fcntl(writer_.get(), F_SETFL, 0);
  }

  /// Takes one piece out of it.
  void make_room() {
    std::array<char, PIPE_BUF> taken;
    EXPECT_EQ(read(reader_.get(), taken.data(), taken.size()), PIPE_BUF);
  }

  /// As much as is written at once.
  static std::string piece() { return std::string(PIPE_BUF, '#'); }

  /// All that is in it now.
  std::string drain() {
    std::string text(1'000'000, '\0');
    const ssize_t length = read(reader_.get(), text.data(), text.size());
    text.resize(static_cast<std::size_t>(std::max(length, ssize_t{0})));
    return text;
  }

 private:
  static std::array<int, 2> make() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    return ends;
  }

  std::array<int, 2> ends_ = make();
  UniqueFd reader_{ends_[0]};
  UniqueFd writer_{ends_[1]};
  StandardError redirected_{writer_.get()};
};

/// Nobody waits for it more than once, and it gets what comes when it reads again.
TEST(Log, SurvivesAConsoleThatIsNotRead) {
  FullPipe console;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) log_parts({"lost ", FullPipe::piece()});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(console.drain().find_first_not_of('#'), std::string::npos);
  log_text("seen again\n");
  EXPECT_EQ(console.drain(), "seen again\n");
}

/// Who does not get the last room does not wait for a reader.
TEST(Log, TheLastRoomIsForOneOfSeveralThreads) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 20 && !HasFailure(); ++round) {
    FullPipe console;
    console.make_room();
    std::latch begin(kThreads);
    std::latch end(kThreads);
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        begin.arrive_and_wait();
        log_parts({FullPipe::piece()});
        end.count_down();
      });
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!end.try_wait() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(end.try_wait()) << "in round " << round;
    while (!end.try_wait()) console.drain();
    console.drain();
    log_text("The next one is waited for again.\n");
  }
}

/// One that reads on soon enough misses nothing.
TEST(Log, WaitsForAConsoleThatIsFullForAMoment) {
  // A busy machine may keep the reader from its work for longer than it is waited for.
  std::string text;
  for (int i = 0; i < 10 && text != "waited for\n"; ++i) {
    FullPipe console;
    {
      const std::jthread reader([&console] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        console.drain();
      });
      log_text("waited for\n");
    }
    text = console.drain();
  }
  EXPECT_EQ(text, "waited for\n");
}

TEST(Log, TextsOfSeveralThreadsNeverMix) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kLines = 100;
  const auto line = [](std::size_t thread) {
    return std::string(100 + 200 * thread, static_cast<char>('a' + thread)) + '\n';
  };
  std::map<std::string, std::size_t> counts;
  {
    Console console;
    std::vector<std::jthread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([text = line(thread)] {
        for (std::size_t i = 0; i < kLines; ++i) log_text("%s", text.c_str());
      });
    }
    for (const auto& text : console.wait(kThreads * kLines)) ++counts[text];
  }
  std::map<std::string, std::size_t> expected;
  for (std::size_t thread = 0; thread < kThreads; ++thread) expected[line(thread)] = kLines;
  EXPECT_EQ(counts, expected);
}

}  // namespace
}  // namespace nimbus
