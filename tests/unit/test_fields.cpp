#include "config/fields.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <utility>

#include "tests/unit/config_keys.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using test::kConfigKeys;

/// Writes to the field through its descriptor: 1 to a number, a text longer than any field.
void write_through(const ConfigField& field, Config& config) {
  if (field.byte != nullptr) config.*field.byte = 1;
  if (field.number != nullptr) config.*field.number = 1;
  if (field.text != nullptr) field.text(config).assign(std::string(1000, 'x'));
}

/// What write_through() leaves in a record of '#' when the field is what the key's row says.
std::string record_written(const test::ConfigKey& key) {
  std::string value;
  switch (key.kind) {
    case FieldKind::flag:
    case FieldKind::byte:
      value = std::string(1, '\1');
      break;
    case FieldKind::number:
      value = std::string("\1\0\0\0", 4);
      break;
    case FieldKind::text:
    case FieldKind::channel_map:
    case FieldKind::quoted_text:
      value = std::string(key.size - 1, 'x') + '\0';
      break;
  }
  return std::string(sizeof(Config), '#').replace(key.offset, value.size(), value);
}

TEST(Fields, AreTheKeysInTheOrderOfTheFile) {
  ASSERT_EQ(kConfigFieldCount, kConfigKeys.size());
  for (std::size_t i = 0; i < kConfigKeys.size(); ++i) {
    EXPECT_EQ(kConfigFields[i].key, kConfigKeys[i].key);
    EXPECT_EQ(kConfigFields[i].kind, kConfigKeys[i].kind) << kConfigKeys[i].key;
  }
}

TEST(Fields, NameTheirPartOfTheRecord) {
  for (std::size_t i = 0; i < kConfigKeys.size(); ++i) {
    SCOPED_TRACE(kConfigKeys[i].key);
    Config config;
    test::set_bytes(config, std::string(sizeof(Config), '#'));
    write_through(kConfigFields[i], config);
    EXPECT_EQ(test::bytes_of(config), record_written(kConfigKeys[i]));
  }
}

TEST(Fields, AreAllDistinct) {
  std::set<std::string> written;
  for (const auto& field : kConfigFields) {
    Config config{};
    write_through(field, config);
    EXPECT_TRUE(written.insert(test::bytes_of(config)).second) << field.key;
  }
}

TEST(Fields, HaveOneMemberOfTheirKind) {
  for (const auto& field : kConfigFields) {
    SCOPED_TRACE(field.key);
    const bool byte = field.kind == FieldKind::flag || field.kind == FieldKind::byte;
    const bool number = field.kind == FieldKind::number;
    EXPECT_EQ(field.byte != nullptr, byte);
    EXPECT_EQ(field.number != nullptr, number);
    EXPECT_EQ(field.text != nullptr, !byte && !number);
  }
}

/// The bounds are those of the field.
TEST(Fields, KnowTheirBounds) {
  for (std::size_t i = 0; i < kConfigKeys.size(); ++i) {
    SCOPED_TRACE(kConfigKeys[i].key);
    const ConfigField& field = kConfigFields[i];
    const auto size = static_cast<std::int64_t>(kConfigKeys[i].size);
    switch (field.kind) {
      case FieldKind::flag:
        EXPECT_EQ(std::pair(field.least, field.most), std::pair(std::int64_t{0}, std::int64_t{1}));
        break;
      case FieldKind::byte:
        EXPECT_EQ(std::pair(field.least, field.most),
                  std::pair(std::int64_t{0}, std::int64_t{255}));
        break;
      case FieldKind::number:
        EXPECT_EQ(field.least, std::numeric_limits<std::int32_t>::min());
        EXPECT_EQ(field.most, std::numeric_limits<std::int32_t>::max());
        break;
      case FieldKind::text:
      case FieldKind::channel_map:
      case FieldKind::quoted_text:
        EXPECT_EQ(std::pair(field.least, field.most), std::pair(std::int64_t{0}, size - 1));
        break;
    }
  }
}

TEST(Fields, EveryKeyFindsItsField) {
  for (std::size_t i = 0; i < kConfigKeys.size(); ++i) {
    EXPECT_EQ(find_config_field(kConfigKeys[i].key), &kConfigFields[i]) << kConfigKeys[i].key;
  }
}

TEST(Fields, OnlyTheExactKeyIsFound) {
  for (const auto& row : kConfigKeys) {
    SCOPED_TRACE(row.key);
    const std::string key = row.key;
    std::string capitals;
    for (const char c : key) capitals += c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
    EXPECT_EQ(find_config_field(capitals), nullptr);
    EXPECT_EQ(find_config_field(capitals.substr(0, 1) + key.substr(1)), nullptr);
    EXPECT_EQ(find_config_field(key.substr(0, key.size() - 1)), nullptr);
    EXPECT_EQ(find_config_field(key + '2'), nullptr);
    EXPECT_EQ(find_config_field(key + ' '), nullptr);
    EXPECT_EQ(find_config_field(' ' + key), nullptr);
    EXPECT_EQ(find_config_field(key + '\0'), nullptr);
  }
}

TEST(Fields, NothingElseIsFound) {
  // Among others what the record holds and the file does not.
  for (const char* key : {"", "_", "ap_running", "data_connected", "service_version", "rc_input",
                          "rc1_input_mode", "reserved_2", "39"}) {
    EXPECT_EQ(find_config_field(key), nullptr) << key;
  }
}

}  // namespace
}  // namespace nimbus
