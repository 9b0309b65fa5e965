#include "config/hdmi_modes.h"

#include <array>

#include "base/word_table.h"

namespace nimbus {
namespace {

constexpr HdmiMode cea(int mode) { return {HdmiGroup::cea, mode}; }
constexpr HdmiMode dmt(int mode) { return {HdmiGroup::dmt, mode}; }

constexpr std::array<Word<HdmiMode>, 21> kModes{{
    {"default", cea(0)},
    {"640x480@60p CEA", cea(1)},
    {"1280x720@50p CEA", cea(19)},
    {"1280x720@60p CEA", cea(4)},
    {"1920x1080@50i CEA", cea(20)},
    {"1920x1080@50p CEA", cea(31)},
    {"1920x1080@60i CEA", cea(5)},
    {"1920x1080@60p CEA", cea(16)},
    {"1920x1080@24p CEA", cea(32)},
    {"1920x1080@25p CEA", cea(33)},
    {"1920x1080@30p CEA", cea(34)},
    {"640x480@60p DMT", dmt(4)},
    {"640x480@75p DMT", dmt(6)},
    {"800x600@60p DMT", dmt(9)},
    {"800x600@75p DMT", dmt(11)},
    {"1024x768@60p DMT", dmt(16)},
    {"1024x768@75p DMT", dmt(18)},
    {"1152x864@75p DMT", dmt(21)},
    {"1280x1024@60p DMT", dmt(35)},
    {"1280x1024@75p DMT", dmt(36)},
    {"1920x1080@60p DMT", dmt(82)},
}};

}  // namespace

const HdmiMode* hdmi_mode_lookup(std::string_view name) noexcept { return find_word(kModes, name); }

}  // namespace nimbus
