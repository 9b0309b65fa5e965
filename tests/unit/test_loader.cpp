#include "config/loader.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "config/config.h"
#include "config/region.h"
#include "tests/unit/config_keys.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using namespace std::string_literals;
using test::ConfigKey;
using test::kConfigKeys;

const std::string kEmptyMap(31, ',');
constexpr std::size_t kRecordSize = 2336;

/// Every map that was published since reset_record().
std::vector<std::string> published;

/// Publishing comes after storing: the map is found in the record too.
void publish(std::string_view map) {
  EXPECT_EQ(config_get()->rc_input_map.copy().view(), map);
  published.emplace_back(map);
}

void reset_record(char byte = '\0') {
  test::set_bytes(*config_get(), std::string(kRecordSize, byte));
  published.clear();
}

const ConfigKey& row_of(std::string_view key) {
  return *std::find_if(kConfigKeys.begin(), kConfigKeys.end(),
                       [key](const ConfigKey& row) { return row.key == key; });
}

/// Stores a key as the parser does; the handler's result.
int store(const char* key, const std::string& value, const char* section = "") {
  PublishChannelMap hook = publish;
  return config_handler(&hook, section, key, value.c_str());
}

/// The value of a key in the record, by the format's offsets: a number in digits, or a text.
std::string value_of(const ConfigKey& row) {
  const std::string field = test::bytes_of(*config_get()).substr(row.offset, row.size);
  switch (row.kind) {
    case FieldKind::flag:
    case FieldKind::byte:
      return std::to_string(static_cast<std::uint8_t>(field[0]));
    case FieldKind::number: {
      std::int32_t number = 0;
      std::memcpy(&number, field.data(), sizeof(number));
      return std::to_string(number);
    }
    case FieldKind::text:
    case FieldKind::channel_map:
    case FieldKind::quoted_text:
      break;
  }
  EXPECT_NE(field.find('\0'), std::string::npos) << "a text must end within its field";
  return field.substr(0, field.find('\0'));
}

/// Whether everything but that field is zero.
void expect_nothing_else_stored(const ConfigKey& row) {
  const std::string rest = test::bytes_of(*config_get()).erase(row.offset, row.size);
  EXPECT_EQ(rest, std::string(rest.size(), '\0'));
}

bool is_text(const ConfigKey& row) {
  return row.kind == FieldKind::text || row.kind == FieldKind::channel_map ||
         row.kind == FieldKind::quoted_text;
}

/// A text of different characters, none of them a quote.
std::string long_text(std::size_t length) {
  std::string text;
  for (std::size_t i = 0; text.size() < length; ++i) text += std::to_string(i) + ',';
  return text.substr(0, length);
}

// --- One key -----------------------------------------------------------------------------------

class LoaderKey : public testing::TestWithParam<ConfigKey> {
 protected:
  LoaderKey() { reset_record(); }

  /// Stores the value over a zeroed record.
  static void expect_stored(const std::string& value, const std::string& stored) {
    SCOPED_TRACE(value);
    const ConfigKey& row = GetParam();
    reset_record();
    EXPECT_EQ(store(row.key, value), 1);
    EXPECT_EQ(value_of(row), stored);
    expect_nothing_else_stored(row);
    const bool is_map = row.kind == FieldKind::channel_map;
    EXPECT_EQ(published, is_map ? std::vector{stored} : std::vector<std::string>{});
  }
};

INSTANTIATE_TEST_SUITE_P(, LoaderKey, testing::ValuesIn(kConfigKeys),
                         [](const auto& instance) { return std::string(instance.param.key); });

/// What a number becomes in a field of each kind.
struct NumberRow {
  const char* value;
  const char* flag;
  const char* byte;
  const char* number;
};

constexpr NumberRow kNumbers[] = {
    {"0", "0", "0", "0"},
    {"1", "1", "1", "1"},
    {"2", "1", "2", "2"},
    {"7", "1", "7", "7"},
    {"-1", "1", "255", "-1"},
    {"150", "1", "150", "150"},
    {"255", "1", "255", "255"},
    {"256", "1", "0", "256"},
    {"300", "1", "44", "300"},
    {"-300", "1", "212", "-300"},
    {"65536", "1", "0", "65536"},
    {"", "0", "0", "0"},
    {"yes", "0", "0", "0"},
    {"true", "0", "0", "0"},
    {"12abc", "1", "12", "12"},
    {" 12", "1", "12", "12"},
    {"0x1F", "0", "0", "0"},
    {"010", "1", "10", "10"},
    {"1.9", "1", "1", "1"},
    {"0.9", "0", "0", "0"},
    {"\"1\"", "0", "0", "0"},
    {"2147483647", "1", "255", "2147483647"},
    {"2147483648", "1", "255", "2147483647"},
    {"-2147483648", "1", "0", "-2147483648"},
    {"-2147483649", "1", "0", "-2147483648"},
    {"99999999999999999999", "1", "255", "2147483647"},
};

TEST_P(LoaderKey, StoresValuesAsItsKindSays) {
  const ConfigKey& row = GetParam();
  if (is_text(row)) {
    const std::size_t most = row.size - 1;
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{1}, most - 1, most, most + 1, most + 2, std::size_t{600}}) {
      expect_stored(long_text(length), long_text(std::min(length, most)));
    }
    return;
  }
  for (const auto& numbers : kNumbers) {
    expect_stored(numbers.value, row.kind == FieldKind::flag   ? numbers.flag
                                 : row.kind == FieldKind::byte ? numbers.byte
                                                               : numbers.number);
  }
}

TEST_P(LoaderKey, DropsDoubleQuotesOfQuotedTextsOnly) {
  const ConfigKey& row = GetParam();
  if (!is_text(row)) return;
  const std::size_t most = row.size - 1;
  struct Row {
    std::string value, unquoted;
  };
  const Row rows[] = {
      {R"("home")", "home"},
      {R"(a"b"c)", "abc"},
      {R"("")", ""},
      {R"(")", ""},
      {R"("""x""")", "x"},
      {R"(" my net ")", " my net "},
      {"'single'", "'single'"},
      {R"(\"\\)", R"(\\\)"},
      // The value is cut to the field before its quotes are dropped.
      {'"' + std::string(most, 'x') + '"', std::string(most - 1, 'x')},
      {std::string(most, '"') + "tail", ""},
      {std::string(most - 1, '"') + "tail", "t"},
      {std::string(most, 'x') + '"', std::string(most, 'x')},
  };
  for (const auto& [value, unquoted] : rows) {
    expect_stored(value, row.kind == FieldKind::quoted_text ? unquoted : value.substr(0, most));
  }
}

TEST_P(LoaderKey, ALaterValueReplacesAnEarlierOne) {
  const ConfigKey& row = GetParam();
  const bool text = is_text(row);
  store(row.key, text ? long_text(600) : "77");
  for (const std::string value : {text ? "abc" : "1", text ? "" : "0"}) {
    EXPECT_EQ(store(row.key, value), 1);
    EXPECT_EQ(value_of(row), value);
  }
}

TEST_P(LoaderKey, IsRefusedInASection) {
  for (const char* section : {"net", " ", "0"}) {
    EXPECT_EQ(store(GetParam().key, "1", section), 0) << section;
  }
  EXPECT_EQ(test::bytes_of(*config_get()), std::string(kRecordSize, '\0'));
  EXPECT_TRUE(published.empty());
}

class Loader : public testing::Test {
 protected:
  Loader() { reset_record(); }
};

TEST_F(Loader, UnknownKeysAreRefused) {
  for (const char* key : {"", "Hdmi_enabled", "hdmi_enabled2", "ap_running", "service_version"}) {
    EXPECT_EQ(store(key, "1"), 0) << key;
  }
  EXPECT_EQ(test::bytes_of(*config_get()), std::string(kRecordSize, '\0'));
}

TEST_F(Loader, NobodyNeedsToListenForTheMap) {
  PublishChannelMap nobody = nullptr;
  EXPECT_EQ(config_handler(&nobody, "", "rc_input_map", "pan,tilt"), 1);
  EXPECT_EQ(value_of(row_of("rc_input_map")), "pan,tilt");
}

// --- A file ------------------------------------------------------------------------------------

/// Runs in a folder of its own, over a record that was in use.
class LoaderFile : public Loader {
 protected:
  LoaderFile() {
    std::string pattern = testing::TempDir() + "loader.XXXXXX";
    folder_ = mkdtemp(pattern.data());
    before_ = std::filesystem::current_path();
    std::filesystem::current_path(folder_);
    reset_record('#');
  }
  ~LoaderFile() override {
    std::filesystem::current_path(before_);
    std::filesystem::remove_all(folder_);
  }

  /// Loads a file; those values must stand in the record then, and nothing else.
  static void expect_loaded(const std::string& content,
                            const std::map<std::string, std::string>& values) {
    test::write_file("tervado.conf", content);
    EXPECT_EQ(config_load(publish), 0);
    expect_record(values, kEmptyMap);
  }

  static void expect_record(std::map<std::string, std::string> values,
                            const std::string& default_map) {
    values.try_emplace("rc_input_map", default_map);
    std::string rest = test::bytes_of(*config_get());
    for (const auto& row : kConfigKeys) {
      const auto value = values.find(row.key);
      const std::string none = is_text(row) ? "" : "0";
      EXPECT_EQ(value_of(row), value == values.end() ? none : value->second) << row.key;
      rest.replace(row.offset, row.size, row.size, '\0');
    }
    EXPECT_EQ(rest, std::string(kRecordSize, '\0')) << "outside of the keys' fields";
  }

 private:
  std::filesystem::path folder_, before_;
};

TEST_F(LoaderFile, EveryKeyOfAFileIsStored) {
  std::string content;
  std::map<std::string, std::string> values;
  int number = 10;
  for (const auto& row : kConfigKeys) {
    std::string& value = values[row.key];
    value = row.kind == FieldKind::flag ? "1" : std::to_string(++number);
    if (row.kind == FieldKind::quoted_text) {
      content += row.key + "=\""s + value + "\"\n";
    } else {
      content += row.key + "="s + value + "\n";
    }
  }
  expect_loaded(content, values);
  EXPECT_EQ(published, std::vector{values["rc_input_map"]});
}

TEST_F(LoaderFile, AMissingFileLeavesAnEmptyRecord) {
  EXPECT_EQ(config_load(publish), -1);
  expect_record({}, "");
  EXPECT_TRUE(published.empty());
}

/// The file is a link into /run, where nothing may be yet.
TEST_F(LoaderFile, ALinkThatLeadsNowhereIsAMissingFile) {
  std::filesystem::create_symlink("run/tervado.conf", "tervado.conf");
  EXPECT_EQ(config_load(publish), -1);
  expect_record({}, "");
  std::filesystem::create_directory("run");
  test::write_file("run/tervado.conf", "video_width=640\n");
  EXPECT_EQ(config_load(publish), 0);
  expect_record({{"video_width", "640"}}, kEmptyMap);
}

/// It can be opened, and has no lines.
TEST_F(LoaderFile, AFolderIsAnEmptyFile) {
  std::filesystem::create_directory("tervado.conf");
  EXPECT_EQ(config_load(publish), 0);
  expect_record({}, kEmptyMap);
  EXPECT_TRUE(published.empty());
}

TEST_F(LoaderFile, LoadingAgainStartsFromZero) {
  expect_loaded("video_width=640\nap_iface=wifi0\n",
                {{"video_width", "640"}, {"ap_iface", "wifi0"}});
  expect_loaded("video_height=480\n", {{"video_height", "480"}});
}

/// The default is stored, not published; an empty map in the file is published, and then replaced.
TEST_F(LoaderFile, AnEmptyMapBecomes32EmptyChannels) {
  expect_loaded("video_width=640\n", {{"video_width", "640"}, {"rc_input_map", kEmptyMap}});
  EXPECT_TRUE(published.empty());
  expect_loaded("rc_input_map=\n", {{"rc_input_map", kEmptyMap}});
  EXPECT_EQ(published, std::vector{""s});
}

TEST_F(LoaderFile, AMapIsPublishedAsOftenAsItIsStored) {
  expect_loaded("rc_input_map=pan\nvideo_width=1\nrc_input_map=pan,tilt\n",
                {{"rc_input_map", "pan,tilt"}, {"video_width", "1"}});
  EXPECT_EQ(published, (std::vector{"pan"s, "pan,tilt"s}));
}

TEST_F(LoaderFile, TheRegionIsMappedWithAndWithoutAFile) {
  for (const bool with_file : {false, true}) {
    std::filesystem::remove("/dev/shm/config_mem");
    if (with_file) test::write_file("tervado.conf", "video_width=640\n");
    config_load(publish);
    EXPECT_NE(config_region(), nullptr);
    EXPECT_EQ(test::read_file("/dev/shm/config_mem"), std::string(kRecordSize, '\0'))
        << "the record is never copied into it";
  }
}

TEST_F(LoaderFile, NoDescriptorIsLeftOpen) {
  const auto before = test::open_descriptors();
  EXPECT_EQ(config_load(publish), -1);
  test::write_file("tervado.conf", "video_width=640\n");
  EXPECT_EQ(config_load(publish), 0);
  EXPECT_EQ(test::open_descriptors(), before);
}

// --- What a line is ----------------------------------------------------------------------------

struct FileCase {
  const char* name;
  std::string content;
  std::map<std::string, std::string> values;
};

/// A line of that many bytes that sets a key, its end not included.
std::string line_of(const std::string& key, std::size_t length) {
  const std::string start = key + '=';
  return start + std::string(length - start.size(), 'a');
}

/// Longest line that the parser takes at once. It goes on with the rest as with a line of its own.
constexpr std::size_t kLongestLine = 199;

const std::string kLongLine = line_of("ap_ssid", kLongestLine);
const std::string kLongValue(kLongestLine - "ap_ssid="s.size(), 'a');

const FileCase kFileCases[] = {
    {"empty_file", "", {}},
    {"blank_lines", "\n\n  \n\t\nvideo_width=1\n\n", {{"video_width", "1"}}},
    {"last_line_without_newline",
     "video_width=1\nvideo_height=2",
     {{"video_width", "1"}, {"video_height", "2"}}},
    {"last_line_without_value", "video_width=1\nap_iface=", {{"video_width", "1"}}},
    {"later_line_wins", "video_width=1\nvideo_width=2\n", {{"video_width", "2"}}},
    {"unknown_keys_are_skipped",
     "video_width=1\nunknown=2\nVIDEO_HEIGHT=3\nap_mode=5\n",
     {{"video_width", "1"}, {"ap_mode", "5"}}},
    {"lines_without_separator_are_skipped",
     "video_width=1\nvideo_height 2\nap_mode=5\n",
     {{"video_width", "1"}, {"ap_mode", "5"}}},
    {"values_are_not_range_tested",
     "rc_input_speed_pan=150\nap_channel=99\nap_mode=-4\n",
     {{"rc_input_speed_pan", "150"}, {"ap_channel", "99"}, {"ap_mode", "-4"}}},
    {"examples",
     "osd_border_height=300\nrc_input_inverse_pan=2\nvideo_hflip=7\nvideo_vflip=yes\n"
     "rc_input_mode=abcdefgh\nrc2_input_mode=sbus2\n",
     {{"osd_border_height", "44"},
      {"rc_input_inverse_pan", "2"},
      {"video_hflip", "1"},
      {"rc_input_mode", "abcde"},
      {"rc2_input_mode", "sbus2"}}},

    // White space.
    {"blanks_are_trimmed",
     "video_width = 1  \nap_iface\t=\t wifi0 \t\nap_ssid =  my net  \n",
     {{"video_width", "1"}, {"ap_iface", "wifi0"}, {"ap_ssid", "my net"}}},
    {"blanks_between_quotes_stay", "ap_ssid=\"  my net  \"\n", {{"ap_ssid", "  my net  "}}},
    {"the_first_line_may_be_indented",
     "  video_width=1\nvideo_height=2\n",
     {{"video_width", "1"}, {"video_height", "2"}}},
    {"carriage_returns_before_newlines",
     "video_width=1\r\n\r\nap_iface=wifi0\r\nap_ssid=\"net\"\r\nvideo_height=2\r",
     {{"video_width", "1"}, {"ap_iface", "wifi0"}, {"ap_ssid", "net"}, {"video_height", "2"}}},
    {"a_carriage_return_alone_ends_no_line",
     "ap_ssid=a\rvideo_width=1\r",
     {{"ap_ssid", "a\rvideo_width=1"}}},

    // Separators.
    {"colons", "video_width:1\nap_iface : wifi0\n", {{"video_width", "1"}, {"ap_iface", "wifi0"}}},
    {"the_first_separator_counts",
     "ap_ssid=a=b:c\nwifi_ssid:d=e\n",
     {{"ap_ssid", "a=b:c"}, {"wifi_ssid", "d=e"}}},
    {"nothing_before_a_separator", "=1\n:2\n= =\nvideo_width=3\n", {{"video_width", "3"}}},

    // Comments.
    {"comment_lines",
     "# one\n; two\n#video_width=1\n;video_height=2\n\t; three\nap_mode=5\n",
     {{"ap_mode", "5"}}},
    {"indented_comment_lines",
     "video_width=1\n  # one\n\t;two\nvideo_height=2\n",
     {{"video_width", "1"}, {"video_height", "2"}}},
    {"an_inline_comment_needs_white_space",
     "ap_ssid=a;b\nwifi_ssid=a ;b\ncamera_ssid=a\t; b ; c\n",
     {{"ap_ssid", "a;b"}, {"wifi_ssid", "a"}, {"camera_ssid", "a"}}},
    {"an_inline_comment_right_behind_the_separator",
     "ap_ssid=;a\nwifi_ssid= ;b\n",
     {{"ap_ssid", ";a"}}},
    {"an_inline_comment_between_quotes",
     "ap_ssid=\"a ;b\"\nwifi_ssid=\"a;b\"\n",
     {{"ap_ssid", "a"}, {"wifi_ssid", "a;b"}}},
    {"a_comment_before_the_separator", "ap_ssid ;=a\nvideo_width=1\n", {{"video_width", "1"}}},
    {"a_number_sign_is_no_inline_comment",
     "ap_ssid=a #b\nap_psk=#c\n",
     {{"ap_ssid", "a #b"}, {"ap_psk", "#c"}}},

    // Continuation lines: each stores its key again.
    {"a_continuation_replaces_the_value",
     "ap_ssid=one\n  two\n\tthree\nvideo_width=1\n",
     {{"ap_ssid", "three"}, {"video_width", "1"}}},
    {"an_indented_key_is_a_continuation",
     "ap_ssid=one\n video_width=1\n",
     {{"ap_ssid", "video_width=1"}}},
    {"a_continuation_of_a_number", "video_width=1\n 22 x\n", {{"video_width", "22"}}},
    {"a_continuation_behind_other_lines",
     "ap_ssid=one\n\n; comment\nno separator\n  two\n",
     {{"ap_ssid", "two"}}},
    {"a_continuation_keeps_its_semicolon",
     "ap_ssid=one\n two ;three\n",
     {{"ap_ssid", "two ;three"}}},
    {"no_continuation_behind_a_section",
     "ap_ssid=one\n[s]\n  two\n[]\n  three\n",
     {{"ap_ssid", "one"}}},
    {"a_continuation_of_an_unknown_key",
     "unknown=one\n  video_width=1\nvideo_height=2\n",
     {{"video_height", "2"}}},

    // Sections.
    {"keys_in_a_section_are_skipped",
     "video_width=1\n[net]\nwifi_ssid=x\nvideo_width=2\n",
     {{"video_width", "1"}}},
    {"an_empty_section_is_none", "[net]\nwifi_ssid=x\n[]\nvideo_width=1\n", {{"video_width", "1"}}},
    {"a_section_that_does_not_end", "[net\nwifi_ssid=x\n", {{"wifi_ssid", "x"}}},
    {"a_key_behind_a_section_header", "[net] wifi_ssid=x\nvideo_width=1\n", {}},

    // Byte-order mark.
    {"byte_order_mark",
     "\xEF\xBB\xBFvideo_width=1\nvideo_height=2\n",
     {{"video_width", "1"}, {"video_height", "2"}}},
    {"byte_order_mark_alone", "\xEF\xBB\xBF", {}},
    {"byte_order_mark_before_a_comment",
     "\xEF\xBB\xBF# comment\nvideo_width=1\n",
     {{"video_width", "1"}}},
    {"byte_order_mark_later",
     "video_width=1\n\xEF\xBB\xBFvideo_height=2\n",
     {{"video_width", "1"}}},

    // Long lines.
    {"a_line_one_below_the_limit",
     line_of("ap_ssid", kLongestLine - 1) + "\nvideo_width=1\n",
     {{"ap_ssid", kLongValue.substr(1)}, {"video_width", "1"}}},
    {"a_line_at_the_limit",
     kLongLine + "\nvideo_width=1\n",
     {{"ap_ssid", kLongValue}, {"video_width", "1"}}},
    {"a_line_one_past_the_limit",
     kLongLine + "z\nvideo_width=1\n",
     {{"ap_ssid", kLongValue}, {"video_width", "1"}}},
    {"a_line_of_many_times_the_limit",
     kLongLine + std::string(5000, 'z') + "\nvideo_width=1\n",
     {{"ap_ssid", kLongValue}, {"video_width", "1"}}},
    {"the_rest_of_a_long_line_may_be_a_key",
     kLongLine + "video_width=1\n",
     {{"ap_ssid", kLongValue}, {"video_width", "1"}}},
    {"the_rest_of_a_long_line_may_be_a_continuation", kLongLine + " zzz\n", {{"ap_ssid", "zzz"}}},
    {"the_rest_of_a_long_line_may_be_a_section",
     kLongLine + "[net]\nvideo_width=1\n",
     {{"ap_ssid", kLongValue}}},
    {"the_rest_of_a_long_line_may_be_a_comment",
     kLongLine + "#video_width=1\n",
     {{"ap_ssid", kLongValue}}},
    {"the_rest_of_a_long_comment_may_be_a_key",
     ';' + std::string(198, 'c') + "video_width=1\n",
     {{"video_width", "1"}}},

    // NUL bytes end what the parser sees of a line.
    {"a_nul_in_a_value",
     "ap_iface=wl\0an\nvideo_width=1\n"s,
     {{"ap_iface", "wl"}, {"video_width", "1"}}},
    {"a_nul_before_the_separator", "ap_iface\0=x\nvideo_width=1\n"s, {{"video_width", "1"}}},
    {"a_nul_at_the_start", "\0ap_iface=x\nvideo_width=1\n"s, {{"video_width", "1"}}},
    {"nothing_but_nuls", std::string(1000, '\0'), {}},
};

class LoaderFileCase : public LoaderFile, public testing::WithParamInterface<FileCase> {};

INSTANTIATE_TEST_SUITE_P(, LoaderFileCase, testing::ValuesIn(kFileCases),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(LoaderFileCase, IsReadAsTheParserDoesByDefault) {
  expect_loaded(GetParam().content, GetParam().values);
}

}  // namespace
}  // namespace nimbus
