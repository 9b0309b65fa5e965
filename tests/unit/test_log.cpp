#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
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

TEST(Log, JoinsTextsOfAnyLengthInOneWrite) {
  const std::string longer(50'000, 'x');
  Console console;
  log_parts({"scan results: ", longer, "", "100%s\n"});
  log_parts({"1", "2", "3", "4", "5", "6", "7", "8", "the ninth"});
  log_parts({std::string_view("abc").substr(1, 1)});
  EXPECT_EQ(console.texts(), (Texts{"scan results: " + longer + "100%s\n", "12345678", "b"}));
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
