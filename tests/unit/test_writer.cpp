#include "config/writer.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "config/config.h"
#include "config/fields.h"
#include "config/loader.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

namespace fs = std::filesystem;
using test::read_file;
using test::Texts;
using test::write_file;

const fs::path kCardFile = "/boot/tervado-nimbus.conf";
const fs::path kWorkingCopy = "/run/tervado.conf";
const fs::path kGoldenFile =
    fs::path(NIMBUS_SOURCE_DIR) / "tests" / "e2e" / "golden" / "tervado-nimbus.conf";

std::string without_cr(std::string text) {
  for (std::size_t at = 0; (at = text.find("\r\n", at)) != std::string::npos;) text.erase(at, 1);
  return text;
}

/// The line of a key, without its end. Empty when there is none.
std::string line_of(const std::string& file, const std::string& key) {
  const auto start = file.find("\n" + key + "=");
  if (start == std::string::npos) return {};
  return file.substr(start + 1, file.find("\r\n", start) - start - 1);
}

/// The golden file, with nothing behind the "=" of any key.
std::string file_without_values() {
  std::string file = read_file(kGoldenFile);
  EXPECT_FALSE(file.empty()) << kGoldenFile;
  for (std::size_t start = 0; start < file.size(); start = file.find('\n', start) + 1) {
    const auto end = file.find("\r\n", start);
    const auto equals = file.find('=', start);
    if (file[start] != '#' && equals < end) file.erase(equals + 1, end - equals - 1);
  }
  return file;
}

using Names = std::set<std::string>;

Names names_on_card() {
  Names names;
  for (const auto& entry : fs::directory_iterator(kCardFile.parent_path())) {
    names.insert(entry.path().filename());
  }
  return names;
}

/// A fresh card and a record of zeros.
class Writer : public testing::Test {
 protected:
  void SetUp() override {
    for (const auto& entry : fs::directory_iterator(kCardFile.parent_path())) {
      fs::remove_all(entry);
    }
    fs::remove_all(kWorkingCopy);
    test::set_bytes(config, std::string(sizeof(Config), '\0'));
  }
  void TearDown() override { test::set_bytes(config, std::string(sizeof(Config), '\0')); }

  Config& config = *config_get();
};

constexpr auto kNumberKeys = std::to_array<const char*>({"hdmi_enabled",
                                                         "video_transcode_enabled",
                                                         "video_bitrate",
                                                         "video_width",
                                                         "video_height",
                                                         "disable_video_stream",
                                                         "video_hflip",
                                                         "video_vflip",
                                                         "rc_input_enabled",
                                                         "rc_input_speed_pan",
                                                         "rc_input_speed_tilt",
                                                         "rc_input_speed_dutch",
                                                         "rc_input_inverse_pan",
                                                         "rc_input_inverse_tilt",
                                                         "rc_input_inverse_dutch",
                                                         "rc_input_exp",
                                                         "rc_input_abs",
                                                         "ap_mode",
                                                         "ap_channel",
                                                         "osd_enabled",
                                                         "osd_border_width",
                                                         "osd_border_height",
                                                         "osd_top_offset",
                                                         "osd_bottom_offset",
                                                         "internal_camera_enabled",
                                                         "internal_camera_fullscreen"});
constexpr auto kQuotedKeys = std::to_array<const char*>(
    {"ap_ssid", "ap_psk", "wifi_ssid", "wifi_psk", "camera_ssid", "camera_psk"});

TEST_F(Writer, RecordOfZeros) {
  test::Console console;
  EXPECT_EQ(config_save(), 0);
  EXPECT_EQ(console.texts(), Texts{"Save config\n"});
  std::string expected = file_without_values();
  const auto put = [&expected](const std::string& key, const std::string& value) {
    const std::string line = "\n" + key + "=";
    const auto at = expected.find(line);
    ASSERT_NE(at, std::string::npos) << key;
    expected.insert(at + line.size(), value);
  };
  for (const char* const key : kNumberKeys) put(key, "0");
  for (const char* const key : kQuotedKeys) put(key, "\"\"");
  EXPECT_EQ(read_file(kCardFile), expected);
  EXPECT_EQ(read_file(kWorkingCopy), without_cr(expected));
}

/// The file of defaults that the installation has for a card without one.
TEST_F(Writer, RecordOfAFreshCard) {
  for (const ConfigField& field : kConfigFields) {
    store_config_field(field, std::string(field.fresh).c_str(), nullptr);
  }
  EXPECT_EQ(config_save(), 0);
  EXPECT_EQ(read_file(kCardFile),
            read_file(fs::path(NIMBUS_SOURCE_DIR) / "install" / "tervado-nimbus.conf"));
}

TEST_F(Writer, BytesAreUnsignedAndNumbersSigned) {
  config.hdmi_enabled = 255;  // whatever another thread leaves there
  config.osd_border_width = 200;
  config.rc_input_inverse_pan = 2;
  config.rc_input_speed_pan = std::numeric_limits<std::int32_t>::min();
  config.ap_channel = std::numeric_limits<std::int32_t>::max();
  config_save();
  const std::string file = read_file(kCardFile);
  EXPECT_EQ(line_of(file, "hdmi_enabled"), "hdmi_enabled=255");
  EXPECT_EQ(line_of(file, "osd_border_width"), "osd_border_width=200");
  EXPECT_EQ(line_of(file, "rc_input_inverse_pan"), "rc_input_inverse_pan=2");
  EXPECT_EQ(line_of(file, "rc_input_speed_pan"), "rc_input_speed_pan=-2147483648");
  EXPECT_EQ(line_of(file, "ap_channel"), "ap_channel=2147483647");
}

// --- Texts -------------------------------------------------------------------------------------

struct TextField {
  const char* key;
  SharedTextRef text;
  std::size_t longest;
  bool quoted;
};

std::initializer_list<TextField> text_fields(Config& config) {
  static const std::initializer_list<TextField> fields{
      {"rc_input_mode", config.rc_input_mode.ref(), 5, false},
      {"rc2_input_mode", config.rc2_input_mode.ref(), 5, false},
      {"rc_input_map", config.rc_input_map.ref(), 511, false},
      {"ap_iface", config.ap_iface.ref(), 9, false},
      {"ap_ssid", config.ap_ssid.ref(), 255, true},
      {"ap_psk", config.ap_psk.ref(), 255, true},
      {"ap_country", config.ap_country.ref(), 9, false},
      {"wifi_iface", config.wifi_iface.ref(), 9, false},
      {"wifi_ssid", config.wifi_ssid.ref(), 255, true},
      {"wifi_psk", config.wifi_psk.ref(), 255, true},
      {"camera_iface", config.camera_iface.ref(), 9, false},
      {"camera_ssid", config.camera_ssid.ref(), 255, true},
      {"camera_psk", config.camera_psk.ref(), 255, true},
  };
  return fields;
}

void fill_texts(Config& config) {
  char letter = 'a';
  for (const TextField& field : text_fields(config)) {
    field.text.assign(std::string(field.longest, letter++));
  }
}

void expect_full_texts(Config& config) {
  const std::string file = read_file(kCardFile);
  char letter = 'a';
  for (const TextField& field : text_fields(config)) {
    SCOPED_TRACE(field.key);
    const std::string text(field.longest, letter++);
    EXPECT_EQ(line_of(file, field.key),
              std::string(field.key) + (field.quoted ? "=\"" + text + "\"" : "=" + text));
  }
}

TEST_F(Writer, TextsAtTheirFullLength) {
  fill_texts(config);
  EXPECT_EQ(config_save(), 0);
  expect_full_texts(config);
}

// A record that another thread is rewriting may hold a text without an end for a moment.
TEST_F(Writer, TextsWithoutTheirNul) {
  fill_texts(config);
  std::string bytes = test::bytes_of(config);
  for (std::size_t i = 1; i < bytes.size(); ++i) {
    const bool behind_a_text = bytes[i - 1] >= 'a' && bytes[i - 1] <= 'm';
    if (behind_a_text && bytes[i] == '\0') bytes[i] = '!';
  }
  test::set_bytes(config, bytes);
  EXPECT_EQ(config_save(), 0);
  EXPECT_EQ(test::bytes_of(config), bytes) << "a save changes nothing in the record";
  expect_full_texts(config);
}

// The loader's lines end after 199 bytes, key included; a longer text loses the rest on its way.
TEST_F(Writer, LongTextIsCutByTheNextStart) {
  fill_texts(config);
  const std::string map = std::string(100, ',') + std::string(150, 'x');
  config.rc_input_map.assign(map);
  config.ap_ssid.assign("short");
  config.rc_input_inverse_pan = 2;
  config_save();
  const fs::path folder = fs::temp_directory_path() / "nimbus_writer_test";
  fs::remove_all(folder);
  fs::create_directory(folder);
  fs::create_symlink(kWorkingCopy, folder / "tervado.conf");
  const fs::path before = fs::current_path();
  fs::current_path(folder);
  EXPECT_EQ(config_load(nullptr), 0);
  fs::current_path(before);
  fs::remove_all(folder);
  EXPECT_EQ(config.rc_input_map.copy().view(),
            map.substr(0, 199 - std::string_view("rc_input_map=").size()));
  EXPECT_EQ(config.ap_ssid.copy().view(), "short");
  EXPECT_EQ(config.rc_input_inverse_pan, 2);
}

/// Anybody may send a text with line ends in it: it must not become a key of its own.
TEST_F(Writer, TextsEndAtTheirFirstLineEnd) {
  config_save();
  const std::string other_lines = read_file(kCardFile);
  for (const char* const end : {"\n", "\r", "\r\n", "\n\n"}) {
    for (const TextField& field : text_fields(config)) {
      field.text.assign("ab" + std::string(end) + "ap_mode=5");
    }
    const std::string bytes = test::bytes_of(config);
    config_save();
    EXPECT_EQ(test::bytes_of(config), bytes) << "the record keeps it as it came";
    std::string file = read_file(kCardFile);
    for (const TextField& field : text_fields(config)) {
      const std::string key = field.key;
      EXPECT_EQ(line_of(file, key), key + (field.quoted ? "=\"ab\"" : "=ab"));
      const std::string line = "\n" + key + (field.quoted ? "=\"ab\"" : "=ab");
      file.replace(file.find(line), line.size(), "\n" + key + (field.quoted ? "=\"\"" : "="));
    }
    EXPECT_EQ(file, other_lines);
  }
}

// --- Failures ----------------------------------------------------------------------------------

TEST_F(Writer, ResultOfARefusedFile) {
  fs::create_directory(kCardFile);
  write_file(kWorkingCopy, "former");
  EXPECT_EQ(config_save(), -1);
  EXPECT_EQ(read_file(kWorkingCopy), "former");
}

TEST_F(Writer, ResultIsTheStatusOfTheLastCommand) {
  fs::create_directory(kWorkingCopy);
  const int status = config_save();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_NE(WEXITSTATUS(status), 0);
  EXPECT_EQ(line_of(read_file(kCardFile), "hdmi_enabled"), "hdmi_enabled=0");
}

TEST_F(Writer, FullPartitionKeepsTheFormerSettings) {
  // By their paths: the names are those of the sandbox's stand-ins.
  ASSERT_EQ(std::system("/bin/mount -t tmpfs -o size=8k test /boot"), 0);
  config_save();
  const std::string former = read_file(kCardFile);
  fill_texts(config);
  EXPECT_EQ(config_save(), 0);
  EXPECT_EQ(read_file(kCardFile), former);
  EXPECT_EQ(read_file(kWorkingCopy), without_cr(former));
  EXPECT_EQ(names_on_card(), Names{"tervado-nimbus.conf"});
  ASSERT_EQ(std::system("/bin/umount /boot"), 0);
  config_save();
  expect_full_texts(config);
}

TEST_F(Writer, FullPartitionWithoutSettingsLeavesTheWorkingCopy) {
  ASSERT_EQ(std::system("/bin/mount -t tmpfs -o size=4k test /boot"), 0);
  write_file("/boot/filler", std::string(4096, 'x'));
  for (const bool empty_file : {false, true}) {
    if (empty_file) write_file(kCardFile, "");
    write_file(kWorkingCopy, "former");
    EXPECT_EQ(config_save(), -1);
    EXPECT_EQ(read_file(kWorkingCopy), "former");
    EXPECT_EQ(names_on_card(),
              empty_file ? (Names{"filler", "tervado-nimbus.conf"}) : Names{"filler"});
  }
  ASSERT_EQ(std::system("/bin/umount /boot"), 0);
}

/// A file that is a mount point can only be rewritten where it is: what did not fit is gone.
TEST_F(Writer, ATornFileIsNotTakenForTheWorkingCopy) {
  const fs::path card = fs::temp_directory_path() / "nimbus_torn_card";
  fs::create_directory(card);
  const std::string where = card.string();
  ASSERT_EQ(std::system(("/bin/mount -t tmpfs -o size=4k test " + where).c_str()), 0);
  write_file(card / "file", "former");
  write_file(kCardFile, "");
  ASSERT_EQ(std::system(("/bin/mount --bind " + where + "/file " + kCardFile.string()).c_str()), 0);
  write_file(kWorkingCopy, "former");
  fill_texts(config);
  EXPECT_EQ(config_save(), -1);
  EXPECT_EQ(fs::file_size(kCardFile), 4096U);
  EXPECT_EQ(read_file(kWorkingCopy), "former");
  ASSERT_EQ(std::system(("/bin/umount " + kCardFile.string() + " " + where).c_str()), 0);
}

TEST_F(Writer, ALinkStaysOne) {
  fs::create_directory(kCardFile.parent_path() / "firmware");
  fs::create_symlink("firmware/tervado-nimbus.conf", kCardFile);
  for (const char* const rate : {"video_bitrate=1", "video_bitrate=2"}) {
    config.video_bitrate = rate[14] - '0';
    EXPECT_EQ(config_save(), 0);
    EXPECT_TRUE(fs::is_symlink(kCardFile));
    EXPECT_EQ(line_of(read_file(kCardFile), "video_bitrate"), rate);
    EXPECT_EQ(names_on_card(), (Names{"firmware", "tervado-nimbus.conf"}));
  }
}

// --- The card's own settings -------------------------------------------------------------------

/// The start step says with a file that it has not taken the settings from the card.
class UnreadCard : public Writer {
 protected:
  const fs::path mark = "/run/tervado.card-unread";
  const fs::path kept = kCardFile.string() + ".kept";

  void SetUp() override {
    Writer::SetUp();
    config_save();  // so that what the service has written last is not what these tests put there
    write_file(mark, "");
  }
  void TearDown() override {
    fs::remove(mark);
    Writer::TearDown();
  }
};

TEST_F(UnreadCard, KeepsItsSettingsAsACopy) {
  write_file(kCardFile, "wifi_ssid=\"home\"\r\n");
  for (int rate = 1; rate <= 2; ++rate) {
    config.video_bitrate = rate;
    EXPECT_EQ(config_save(), 0);
    EXPECT_EQ(line_of(read_file(kCardFile), "video_bitrate"),
              "video_bitrate=" + std::to_string(rate));
    EXPECT_EQ(read_file(kept), "wifi_ssid=\"home\"\r\n") << "not the service's own of before";
  }
}

/// Nobody knows which of them somebody will miss: the first stays, and the last.
TEST_F(UnreadCard, WhatWasKeptFirstStays) {
  for (const char* const found : {"home", "away", "elsewhere"}) {
    write_file(kCardFile, found);
    EXPECT_EQ(config_save(), 0);
    EXPECT_EQ(read_file(kept), "home");
  }
  EXPECT_EQ(read_file(kept.string() + ".last"), "elsewhere");
}

/// A card that is nearly full has no room for what is kept already.
TEST_F(UnreadCard, IsKeptOnce) {
  for (int i = 0; i < 2; ++i) {
    for (const char* const found : {"home", "away"}) {
      write_file(kCardFile, found);
      EXPECT_EQ(config_save(), 0);
    }
  }
  EXPECT_EQ(read_file(kept), "home");
  EXPECT_EQ(read_file(kept.string() + ".last"), "away");
  fs::remove(kept.string() + ".last");
  write_file(kCardFile, "home");
  EXPECT_EQ(config_save(), 0);
  EXPECT_FALSE(fs::exists(kept.string() + ".last"));
}

/// A first save may have gone to the folder below the mount point.
TEST_F(UnreadCard, AlsoWhenItComesLater) {
  fs::remove(kCardFile);
  config_save();
  EXPECT_FALSE(fs::exists(kept));
  write_file(kCardFile, std::string(10'000, 'x'));
  config_save();
  EXPECT_EQ(read_file(kept), std::string(10'000, 'x'));
}

TEST_F(UnreadCard, IsNotRewrittenWithoutTheCopy) {
  write_file(kCardFile, "home");
  fs::create_directory(kept);
  write_file(kept / "something", "");
  EXPECT_EQ(config_save(), 0);
  EXPECT_EQ(read_file(kCardFile), "home");
  EXPECT_EQ(read_file(kWorkingCopy), "home");
}

/// What cannot be opened is refused, whether or not it would be kept.
TEST_F(UnreadCard, IsRefusedWhenItIsReadOnly) {
  ASSERT_EQ(std::system("/bin/mount -t tmpfs test /boot"), 0);
  write_file(kCardFile, "home");
  ASSERT_EQ(std::system("/bin/mount -o remount,ro /boot"), 0);
  write_file(kWorkingCopy, "former");
  EXPECT_EQ(config_save(), -1);
  EXPECT_EQ(read_file(kWorkingCopy), "former");
  ASSERT_EQ(std::system("/bin/umount /boot"), 0);
}

TEST_F(UnreadCard, AnEmptyFileIsNotKept) {
  write_file(kCardFile, "");
  EXPECT_EQ(config_save(), 0);
  EXPECT_FALSE(fs::exists(kept));
}

TEST_F(UnreadCard, OnceItIsReadNothingIsKept) {
  fs::remove(mark);
  write_file(kCardFile, "home");
  EXPECT_EQ(config_save(), 0);
  EXPECT_FALSE(fs::exists(kept));
}

// --- Descriptors -------------------------------------------------------------------------------

TEST_F(Writer, NoDescriptorIsLeft) {
  config_save();
  const auto before = test::open_descriptors();
  config_save();
  fs::remove(kCardFile);
  fs::create_directory(kCardFile);
  config_save();
  EXPECT_EQ(test::open_descriptors(), before);
}

// --- Two threads -------------------------------------------------------------------------------

// The RC thread and the control thread may save at a time.
class TwoSaves : public Writer {
 protected:
  static constexpr std::int32_t kFirst = 1;
  static constexpr std::int32_t kLast = std::numeric_limits<std::int32_t>::min();

  void SetUp() override {
    Writer::SetUp();
    first_file = save(kFirst);
    last_file = save(kLast);
  }

  void TearDown() override {
    for (const char* const tool : {"mount", "umount"}) fs::remove(standin(tool));
    Writer::TearDown();
  }

  static fs::path standin(const char* tool) {
    return fs::path(std::getenv("NIMBUS_STANDINS")) / tool;
  }

  /// Makes a tool run that shell script from now on.
  static void answer(const char* tool, const std::string& script) {
    write_file(standin(tool), "#!/bin/sh\n" + script);
    fs::permissions(standin(tool), fs::perms::owner_all);
  }

  std::string save(std::int32_t bitrate) {
    config.video_bitrate = bitrate;
    config_save();
    return read_file(kCardFile);
  }

  std::string first_file;
  std::string last_file;
};

// Their files differ in length. The settings of the later save are what is left, whole, in both
// places.
TEST_F(TwoSaves, BeginAtAnyDistance) {
  ASSERT_NE(first_file.size(), last_file.size());
  std::minstd_rand chance;
  std::uniform_int_distribution distance_us(0, 15'000);
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    config.video_bitrate = kLast;
    {
      const std::jthread first(config_save);
      std::this_thread::sleep_for(std::chrono::microseconds(distance_us(chance)));
      config.video_bitrate = kFirst;
      const std::jthread second(config_save);
    }
    EXPECT_EQ(read_file(kCardFile), first_file);
    EXPECT_EQ(read_file(kWorkingCopy), without_cr(first_file));
  }
}

// What is written into the empty folder, while the other save has the partition unmounted, is lost.
TEST_F(TwoSaves, OneFindsThePartitionAway) {
  const fs::path away = "/run/card_away";
  fs::remove(away);
  answer("umount",
         "[ -e " + away.string() + " ] || mv " + kCardFile.string() + " " + away.string() + "\n");
  answer("mount", "[ $# = 1 ] && [ -e " + away.string() + " ] || exit 0\nsleep 0.2\nmv " +
                      away.string() + " " + kCardFile.string() + "\n");
  config.video_bitrate = kFirst;
  {
    const std::jthread first(config_save);
    while (!fs::exists(away)) std::this_thread::yield();
    config.video_bitrate = kLast;
    const std::jthread second(config_save);
  }
  EXPECT_EQ(read_file(kCardFile), last_file);
  EXPECT_EQ(read_file(kWorkingCopy), without_cr(last_file));
}

// A setting may change while it is saved; the file has its value of some moment.
TEST_F(TwoSaves, WhileASettingChanges) {
  const test::Background other([this] {
    config.video_bitrate = kFirst;
    config.video_bitrate = kLast;
  });
  for (int round = 0; round < 50 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    {
      const std::jthread first(config_save);
      const std::jthread second(config_save);
    }
    const std::string file = read_file(kCardFile);
    EXPECT_TRUE(file == first_file || file == last_file) << file;
    EXPECT_EQ(read_file(kWorkingCopy), without_cr(file));
  }
}

}  // namespace
}  // namespace nimbus
