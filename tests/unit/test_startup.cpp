#include "app/startup.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "app/version.h"
#include "config/config.h"
#include "display/region.h"
#include "net/sources.h"
#include "net/viewers.h"
#include "tests/unit/board_tools.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using namespace std::string_literals;
using test::Texts;

constexpr const char* kRegion = "/dev/shm/hud_mem";

/// Each start is a process of its own: nothing of a service is ever undone.
class Startup : public testing::Test {
 protected:
  Startup() {
    std::filesystem::remove(kRegion);
    std::filesystem::remove("tervado.conf");
  }
  ~Startup() override { std::filesystem::remove("tervado.conf"); }

  const test::BoardTools tools_;
};

/// The service goes on when this returns.
void start_beside() {
  std::thread([] { run_service(); }).detach();
}

[[noreturn]] void end() { std::_Exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS); }

TEST_F(Startup, SaysEachStepInItsOrder) {
  EXPECT_EXIT(
      {
        test::Console console;
        start_beside();
        EXPECT_EQ(console.wait(11),
                  (Texts{"Loading config file... ", "failed\n", "Init network... ", "done\n",
                         "Data lost\n", "Video lost\n", "Init data source... ", "done\n",
                         "Init video source... ", "done\n", "Init control\n"}));
        end();
      },
      testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(Startup, TheDisplayLearnsSplashAndSettings) {
  test::write_file("tervado.conf", "osd_enabled=1\ninternal_camera_fullscreen=1\n");
  EXPECT_EXIT(
      {
        test::Console console;
        start_beside();
        EXPECT_EQ(console.wait(11)[1], "done\n");
        const auto& display = *display_region();
        EXPECT_EQ(test::bytes_of(display.product_name).substr(0, 15), "Tervado Nimbus\0"s);
        EXPECT_EQ(test::bytes_of(display.version_text).substr(0, 8), "v.0.3.7\0"s);
        EXPECT_EQ(test::bytes_of(config_get()->service_version).substr(0, 6), "0.3.7\0"s);
        EXPECT_EQ(display.osd_enabled, 1);
        EXPECT_EQ(display.internal_camera_enabled, 0);
        EXPECT_EQ(display.internal_camera_fullscreen, 1);
        end();
      },
      testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(Startup, ARegionThatIsTooShortEndsTheStart) {
  test::write_file(kRegion, std::string(sizeof(DisplayRegion) - 1, '\0'));
  EXPECT_EXIT(std::_Exit(run_service()), testing::ExitedWithCode(EXIT_FAILURE),
              "it has 2671 bytes, expected at least 2672\n$");
}

/// Somebody else has the port.
class Taken {
 public:
  explicit Taken(std::uint16_t port) { EXPECT_EQ(link_.open({port, 1000}), 0); }

 private:
  UdpLink link_;
};

TEST_F(Startup, APortThatIsTakenEndsTheStart) {
  EXPECT_EXIT(
      {
        const Taken taken(kViewerPort);
        std::_Exit(run_service());
      },
      testing::ExitedWithCode(EXIT_FAILURE), "Init network... fail\n$");
  EXPECT_EXIT(
      {
        const Taken taken(kDataPort);
        std::_Exit(run_service());
      },
      testing::ExitedWithCode(EXIT_FAILURE), "Init data source... fail\n$");
  EXPECT_EXIT(
      {
        const Taken taken(kVideoPort);
        std::_Exit(run_service());
      },
      testing::ExitedWithCode(EXIT_FAILURE), "Init video source... fail\n$");
}

}  // namespace
}  // namespace nimbus
