#include "control/interpreter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>

#include "base/unique_fd.h"
#include "display/region.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

/// A command with a member that makes it costly not to release its tree.
std::string command(const std::string& members) {
  std::string text = "{" + members + ",\"x\":[0";
  for (int i = 0; i < 100; ++i) text += ",0";
  return text + "]}";
}

/// The ways out of a command: the end, the early ends, and the ends for want of a value.
const std::string kTexts[] = {
    "",
    "{",
    "[]",
    command(R"("cmd":"position","param":"move")").substr(0, 200),
    command(R"("cmd":"nothing")"),
    command(R"("cmd":"shot")"),
    command(R"("cmd":"color","param":"art")"),
    command(R"("cmd":"camera","param":"mode")"),
    command(R"("cmd":"wb","param":"custom")"),
    command(R"("cmd":"wb","param":"custom","value1":"9")"),
    command(R"("cmd":"iso","param":"9")"),
    command(R"("cmd":"ev","param":"9")"),
    command(R"("cmd":"exposure","param":"point")"),
    command(R"("cmd":"focus","param":"point","value1":"0")"),
    command(R"("cmd":"position","param":"move")"),
    command(R"("cmd":"position","param":"moverel","value1":"0")"),
    command(R"("cmd":"position","param":"moverel","value1":"0","value2":"0")"),
    command(R"("cmd":"position","param":"speed","value1":"0","value2":"0")"),
    command(R"("cmd":"position","param":"speed","value1":"0","value2":"0","value3":"0")"),
    command(R"("cmd":"tracking","param":"start","value1":"0")"),
    command(R"("cmd":"orientation","param":"unlock")"),
};

TEST(InterpretCommand, LeavesNoMemoryBehind) {
  ASSERT_NE(map_display_region(), nullptr);
  const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  const test::StandardError silent(nowhere.get());
  for (const std::string& text : kTexts) {
    SCOPED_TRACE(text.substr(0, 70));
    interpret_command(text.c_str());
    const auto before = mallinfo2().uordblks;
    constexpr int kTimes = 2000;
    for (int i = 0; i < kTimes; ++i) interpret_command(text.c_str());
    // A chunk may be some bytes larger than it need be; less than one node a command is no leak.
    EXPECT_LT(mallinfo2().uordblks, before + kTimes * sizeof(void*));
  }
}

}  // namespace
}  // namespace nimbus
