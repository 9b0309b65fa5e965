#include "display/region.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

constexpr const char* kFile = "/dev/shm/hud_mem";
constexpr std::size_t kSize = 2672;

class DisplayRegionMap : public testing::Test {
 protected:
  DisplayRegionMap() { std::filesystem::remove_all(kFile); }

  static mode_t mode() {
    struct stat status {};
    EXPECT_EQ(stat(kFile, &status), 0);
    return status.st_mode & 07777U;
  }
};

TEST_F(DisplayRegionMap, ANewRegionIsZeroedForItsOwnerOnly) {
  const auto umask_before = umask(0);
  const DisplayRegion* const region = map_display_region();
  umask(umask_before);
  ASSERT_NE(region, nullptr);
  EXPECT_EQ(mode(), 0600U);
  EXPECT_EQ(test::read_file(kFile), std::string(kSize, '\0'));
  EXPECT_EQ(test::bytes_of(*region), std::string(kSize, '\0'));
}

TEST_F(DisplayRegionMap, AnExistingRegionIsTakenAsItIs) {
  for (const std::size_t size : {kSize, kSize + 1, std::size_t{4096}, std::size_t{10'000}}) {
    SCOPED_TRACE(size);
    std::string content;
    while (content.size() < size) content += std::to_string(content.size()) + '.';
    content.resize(size);
    test::write_file(kFile, content);
    std::filesystem::permissions(kFile, std::filesystem::perms{0640});
    const DisplayRegion* const region = map_display_region();
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(test::bytes_of(*region), content.substr(0, kSize));
    EXPECT_EQ(test::read_file(kFile), content);
    EXPECT_EQ(mode(), 0640U);
    std::filesystem::remove(kFile);
  }
}

TEST_F(DisplayRegionMap, IsSharedWithTheSiblings) {
  DisplayRegion* const region = map_display_region();
  ASSERT_NE(region, nullptr);
  region->rc_channel_values[31] = 0x1234;
  EXPECT_EQ(test::read_file(kFile).substr(1240, 2), "\x34\x12");
  DisplayRegion* const again = map_display_region();
  ASSERT_NE(again, nullptr);
  again->viewer_count = 7;
  EXPECT_EQ(region->viewer_count, 7);
}

/// Touching the pages that it lacks would end the process with a bus error. It is looked at for 100
/// ms: a sibling may be about to size it.
TEST_F(DisplayRegionMap, AShortRegionIsRefused) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kSize - 1}) {
    const std::string content(size, 'x');
    test::write_file(kFile, content);
    test::Console console;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(map_display_region(), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
    EXPECT_EQ(console.texts(),
              test::Texts{"Cannot map shared memory /hud_mem: it has " + std::to_string(size) +
                          " bytes, expected at least 2672\n"});
    EXPECT_EQ(test::read_file(kFile), content) << "left as it was";
  }
}

/// A sibling that has made it sizes it a moment later.
TEST_F(DisplayRegionMap, ARegionThatIsSizedMeanwhileIsTaken) {
  test::write_file(kFile, "");
  test::Console console;
  const std::jthread sibling([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    std::filesystem::resize_file(kFile, kSize);
  });
  EXPECT_NE(map_display_region(), nullptr);
  EXPECT_EQ(console.texts(), test::Texts{});
}

TEST_F(DisplayRegionMap, AFailureIsReportedInOneLine) {
  std::filesystem::create_directory(kFile);
  test::Console console;
  EXPECT_EQ(map_display_region(), nullptr);
  const auto texts = console.texts();
  ASSERT_EQ(texts.size(), 1U);
  EXPECT_TRUE(texts[0].starts_with("Cannot map shared memory /hud_mem: ")) << texts[0];
  EXPECT_EQ(texts[0].find('\n'), texts[0].size() - 1) << texts[0];
}

TEST_F(DisplayRegionMap, TheLastResultIsKept) {
  DisplayRegion* const first = map_display_region();
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(display_region(), first);
  DisplayRegion* const second = map_display_region();
  EXPECT_EQ(display_region(), second);
  test::write_file(kFile, "");
  const test::Console console;
  EXPECT_EQ(map_display_region(), nullptr);
  EXPECT_EQ(display_region(), nullptr);
}

TEST_F(DisplayRegionMap, NoDescriptorIsLeftOpen) {
  const auto before = test::open_descriptors();
  EXPECT_NE(map_display_region(), nullptr);  // creates
  EXPECT_NE(map_display_region(), nullptr);  // attaches
  test::write_file(kFile, "");
  {
    const test::Console console;
    EXPECT_EQ(map_display_region(), nullptr);
  }
  EXPECT_EQ(test::open_descriptors(), before);
}

}  // namespace
}  // namespace nimbus
