// The file on the card ends its lines with CR LF, so that it can be edited on any desktop; the
// working copy, which the loader reads at the next start, has plain line ends.
#include "config/writer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/log.h"
#include "base/shell.h"
#include "base/text_builder.h"
#include "base/whole_file.h"
#include "config/card.h"
#include "config/config.h"
#include "config/fields.h"

namespace nimbus {
namespace {

#define CARD_FILE "/boot/tervado-nimbus.conf"
#define WORKING_COPY "/run/tervado.conf"

// There as long as the start step has not taken the settings from the card.
constexpr const char* kCardUnread = "/run/tervado.card-unread";
// What the card had then, behind the name of its file: the first and the last of them.
constexpr const char* kFirstKeptSuffix = ".kept";
constexpr const char* kLastKeptSuffix = ".kept.last";

constexpr std::size_t kFileSize = 16'384;

/// At most: as if every character of a comment were a line end, which becomes two.
constexpr std::size_t longest_file() {
  constexpr std::size_t kNumber = 11;
  constexpr std::size_t kAround = 7;  // "=", quotes, two line ends
  std::size_t length = 64;            // the first lines
  for (const ConfigField& field : kConfigFields) {
    const auto value = field.number != nullptr ? kNumber : static_cast<std::size_t>(field.most);
    length += 2 * field.comment.size() + field.key.size() + value + kAround;
  }
  return length;
}
static_assert(longest_file() < kFileSize);

/// Adds lines that end with LF here; in the file they end with CR LF.
void add_lines(TextBuilder& file, std::string_view lines) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    file.add(lines[i] == '\n' ? "\r\n" : lines.substr(i, 1));
  }
}

void add_value(TextBuilder& file, const ConfigField& field, Config& config) {
  if (field.byte != nullptr) {
    file.add(std::int32_t{config.*field.byte});
    return;
  }
  if (field.number != nullptr) {
    file.add(config.*field.number);
    return;
  }
  const std::string_view quote = field.kind == FieldKind::quoted_text ? "\"" : "";
  std::array<char, kLongestConfigText> text;
  const std::string_view value = field.text(config).copy_to(text);
  // A line end in a value would begin a line of its own, with any key.
  file.add(quote).add(value.substr(0, value.find_first_of("\r\n"))).add(quote);
}

void build_file(TextBuilder& file, Config& config) {
  add_lines(file, "# Tervado config file\n\n");
  for (const ConfigField& field : kConfigFields) {
    add_lines(file, field.comment);
    file.add(field.key).add("=");
    add_value(file, field, config);
    add_lines(file, "\n\n");
  }
}

// --- The card ----------------------------------------------------------------------------------

bool config_unread = false;

// The last file on the card that is this service's own. Whoever changes the card.
std::array<char, kFileSize> saved;
std::size_t saved_length = 0;

/// The settings that no start could read are not lost for those that the service has in their
/// place.
bool keep_unread_settings() {
  if (!config_unread && access(kCardUnread, F_OK) != 0) return true;
  if (saved_length > 0 && file_holds(CARD_FILE, {saved.data(), saved_length})) return true;
  // A save that failed behind the copy has left what was copied.
  if (copy_agrees(CARD_FILE, kFirstKeptSuffix) || copy_agrees(CARD_FILE, kLastKeptSuffix)) {
    return true;
  }
  return keep_copy(CARD_FILE,
                   has_copy(CARD_FILE, kFirstKeptSuffix) ? kLastKeptSuffix : kFirstKeptSuffix);
}

/// Refused: the file cannot be opened. Failed or torn: there was no room for the text, or for a
/// copy of what is there; that is not noticed: there is nobody to tell, the former settings stay
/// (of a torn file those of the working copy), and the next save tries again.
Replaced write_card_file(std::string_view text) {
  if (!keep_unread_settings()) {
    return access(CARD_FILE, W_OK) == 0 ? Replaced::failed : Replaced::refused;
  }
  const Replaced replaced = replace_file(CARD_FILE, text);
  if (replaced == Replaced::whole) saved_length = text.copy(saved.data(), saved.size());
  return replaced;
}

bool card_has_settings() {
  struct stat file {};
  return stat(CARD_FILE, &file) == 0 && file.st_size > 0;
}

}  // namespace

void config_is_not_the_cards() noexcept { config_unread = true; }

int config_save() noexcept {
  const CardChange card;
  log_text("Save config\n");
  make_writable(card);
  std::array<char, kFileSize> buffer;
  TextBuilder file(buffer);
  build_file(file, *config_get());
  const Replaced replaced = write_card_file(file.view());
  if (replaced == Replaced::refused) return -1;
  // A full card without settings has none for the working copy either, nor has a torn file.
  const bool has_settings =
      replaced == Replaced::whole || (replaced == Replaced::failed && card_has_settings());
  mount_afresh(card);
  if (!has_settings) return -1;
  return run_shell("cat " CARD_FILE " | sed 's/\\r$//' > " WORKING_COPY);
}

}  // namespace nimbus
