// Writes the dissector for Wireshark: its Lua source with a table of everything that the code knows
// of messages, reports, commands and codes in place of one line, so that a new row of the code's
// tables shows up there by itself.
//
// usage: wireshark_tables SOURCE OUTPUT
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "camera/codes.h"
#include "camera/duml.h"
#include "camera/reports.h"
#include "net/messages.h"
#include "net/sources.h"
#include "net/viewers.h"
#include "tools/common/text.h"
#include "tools/sim/commands.h"

namespace nimbus::wireshark {
namespace {

using tools::format_text;

constexpr std::string_view kMark = "local tables = {}  -- the build fills them in\n";

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

// --- Codes -------------------------------------------------------------------------------------

std::string shown(std::string_view text) { return std::string(text); }
std::string shown(double ev) { return format_text("%+.1f", ev); }
std::string shown(std::uint16_t number) { return std::to_string(number); }
std::string shown(const Resolution& picture) {
  return std::to_string(picture.width) + "x" + std::to_string(picture.height);
}

template <typename Row>
std::string shown_row(const Row& row) {
  return shown(row.value);
}
std::string shown_row(const Iso& row) {
  return row.word.empty() ? shown(row.value) : std::string(row.word);
}

template <typename Table>
std::string codes(std::string_view field, const Table& table) {
  std::string text = "    " + std::string(field) + " = {";
  for (const auto& row : table) {
    text += "[" + std::to_string(row.code) + "] = " + quoted(shown_row(row)) + ", ";
  }
  return text + "},\n";
}

/// What the codes of a field stand for, by the field's name.
std::string all_codes() {
  return "  codes = {\n" + codes("camera_mode", kCameraModeNames) + codes("colour", kColours) +
         codes("exposure_mode", kExposureModeNames) + codes("ev_code", kEvSteps) +
         codes("frame_rate", kFrameRates) + codes("iso", kIsoValues) +
         codes("photo_format", kPhotoFormatNames) + codes("resolution", kResolutions) +
         codes("white_balance", kWhiteBalances) + "  },\n";
}

// --- Layouts -----------------------------------------------------------------------------------

std::string_view kind_name(WireItem::Kind kind) {
  switch (kind) {
    case WireItem::Kind::natural:
      return "natural";
    case WireItem::Kind::integer:
      return "integer";
    case WireItem::Kind::real:
      return "real";
    case WireItem::Kind::bit:
      return "bit";
  }
  return {};
}

std::string items(std::span<const WireItem> list) {
  std::string text = "items = {\n";
  for (const WireItem& item : list) {
    text += format_text("      {name = \"%.*s\", at = %zu, size = %zu, count = %zu, kind = ",
                        static_cast<int>(item.name.size()), item.name.data(), item.at, item.size,
                        item.count) +
            quoted(kind_name(item.kind)) + format_text(", bit = %u},\n", item.bit);
  }
  return text + "    }";
}

std::string row(unsigned type, std::string_view name, std::size_t size,
                std::span<const WireItem> list) {
  return format_text("    [%u] = {size = %zu, name = ", type, size) + quoted(name) + ", " +
         items(list) + "},\n";
}

std::string messages() {
  std::string text = "  to_viewers = {\n";
  for (const MessageKind& kind : kMessageKinds) {
    text += row(type_of(kind.type), kind.name, kind.size, kind.items);
  }
  const auto from = [](FromViewer type) { return static_cast<unsigned>(type); };
  text += "  },\n  from_viewers = {\n";
  text += row(from(FromViewer::register_viewer), "register", 2, RegisterMessage::kItems);
  text += row(from(FromViewer::leave), "leave", 1, {});
  text += row(from(FromViewer::speed), "speed", SpeedMessage::kSize, SpeedMessage::kItems);
  return text + format_text("  },\n  text = %u,\n", unsigned{type_of(ToViewer::text)});
}

std::string reports() {
  std::string text = "  reports = {\n";
  for (const ReportKind& kind : kReportKinds) {
    text += format_text("    {length = %u, ", unsigned{kind.length});
    if (kind.command_set != kAnySet) text += format_text("set = %u, ", unsigned{kind.command_set});
    text += "name = " + quoted(kind.name) + ", " + items(kind.items) + "},\n";
  }
  return text + "  },\n";
}

std::string commands() {
  std::string text = "  commands = {\n";
  for (const sim::CameraCommand& command : sim::all_commands()) {
    text += format_text("    {receiver = %u, set = %u, id = %u, size = %u, ",
                        unsigned{command.receiver}, unsigned{command.set}, unsigned{command.id},
                        unsigned{command.payload_size});
    if (command.byte != sim::CameraCommand::any) {
      text += format_text("at = %u, byte = %d, ", unsigned{command.at}, command.byte);
    }
    text += "name = " + quoted(command.name) + "},\n";
  }
  return text + "  },\n";
}

std::string tables() {
  return "local tables = {\n" +
         format_text("  ports = {viewers = %u, data = %u, video = %u},\n", unsigned{kViewerPort},
                     unsigned{kDataPort}, unsigned{kVideoPort}) +
         format_text("  frame = {header = %zu, magic = %u, kind = %zu, number = %zu},\n",
                     kFrameHeaderSize, unsigned{kFrameMagic}, kFrameKindOffset,
                     kFrameNumberOffset) +
         format_text("  duml = {start = %u, header = %zu, sequence = %zu, set = %zu},\n",
                     unsigned{kDumlStart}, kDumlHeaderSize, DumlHeader::sequence.at,
                     DumlHeader::set.at) +
         all_codes() + messages() + reports() + commands() + "}\n";
}

void write_dissector(const char* source, const char* output) {
  std::ifstream file(source, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  const auto mark = text.find(kMark);
  if (!file || mark == std::string::npos) {
    throw std::runtime_error(std::string(source) + " has no line for the tables");
  }
  text.replace(mark, kMark.size(), tables());
  std::ofstream whole(output, std::ios::binary);
  if (!(whole << text).flush()) throw std::runtime_error(std::string("cannot write ") + output);
}

}  // namespace
}  // namespace nimbus::wireshark

int main(int argc, char** argv) {
  try {
    if (argc != 3) throw std::runtime_error("expected SOURCE and OUTPUT");
    nimbus::wireshark::write_dissector(argv[1], argv[2]);
    return EXIT_SUCCESS;
  } catch (const std::exception& problem) {
    std::cerr << "wireshark_tables: " << problem.what() << "\n";
    return EXIT_FAILURE;
  }
}
