// The block of shared memory through which the service, the display process and the RC reader
// exchange state. Its layout is a format of its own: little-endian, fixed offsets, texts
// NUL-terminated in fixed fields, flags one byte of 0 or 1. Each remark begins with its field's
// offset.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "base/shared.h"
#include "base/shared_text.h"
#include "display/command_mailbox.h"

namespace nimbus {

/// The shared region. Every field may change under a reader at any moment; see Shared. Reserved
/// bytes belong to the sibling processes: the service neither reads nor writes them.
struct DisplayRegion {
  SharedText<128> product_name;  // 0: splash line 1; emptied when camera data is first found
  std::array<std::byte, 158> reserved_128;
  SharedText<76> version_text;  // 286: splash line 2; emptied when camera data is first found

  // Connection state, kept by the links and the status loop.
  Shared<std::uint8_t> viewer_count;      // 362: registered viewers, 0 to 10
  Shared<std::uint8_t> data_connected;    // 363: 1: camera data arrives
  Shared<std::uint8_t> video_connected;   // 364: 1: video arrives
  SharedText<128> telemetry_status_text;  // 365: why there is no telemetry; empty while it arrives
  SharedText<128> video_status_text;      // 493: why there is no video; empty while it arrives

  // Gimbal and camera state, decoded from the camera's reports.
  std::array<std::byte, 1> reserved_621;
  Shared<std::int16_t> gimbal_angle_1;   // 622: whole degrees
  Shared<std::int16_t> gimbal_angle_2;   // 624: whole degrees
  Shared<std::int16_t> gimbal_angle_3;   // 626: whole degrees
  Shared<std::uint8_t> gimbal_flag;      // 628: 0 or 1
  Shared<std::uint8_t> status_629;       // 629: 0 or 1, for the display process
  Shared<std::uint8_t> status_630;       // 630: for the display process
  Shared<std::uint8_t> status_631;       // 631: a flag bit, for the display process
  Shared<std::uint8_t> recording_state;  // 632: as the camera reports it
  Shared<std::uint8_t> recording_reset;  // 633: 0 or 1
  Shared<std::uint8_t> timer_state;      // 634: camera timer: last state code, 0: none
  std::array<std::byte, 1> reserved_635;
  Shared<std::uint32_t> timer_start_ms;     // 636: camera timer: start, now_ms
  Shared<std::uint32_t> timer_elapsed_ms;   // 640: camera timer: elapsed, milliseconds
  Shared<std::uint8_t> camera_mode;         // 644: 0: photo, 1: video, 7: play
  SharedText<10> camera_mode_text;          // 645
  Shared<std::uint8_t> exposure_mode;       // 655: 1: auto, 2: shutter, 3: aperture, 4: manual
  SharedText<20> exposure_mode_text;        // 656
  Shared<std::uint8_t> resolution;          // 676: the camera's code
  SharedText<11> resolution_text;           // 677
  Shared<std::uint16_t> resolution_width;   // 688: pixels
  Shared<std::uint16_t> resolution_height;  // 690: pixels
  Shared<std::uint8_t> frame_rate_code;     // 692: the camera's code
  std::array<std::byte, 1> reserved_693;
  Shared<std::uint16_t> frame_rate;          // 694: frames a second
  Shared<std::uint8_t> white_balance;        // 696: the camera's code
  SharedText<21> white_balance_text;         // 697
  Shared<std::uint16_t> colour_temperature;  // 718: kelvin
  Shared<double> aperture;                   // 720: f-number
  Shared<std::uint16_t> settings_728;        // 728: for the display process
  Shared<std::uint16_t> iso;                 // 730: ISO value, 0: auto
  Shared<std::uint16_t> iso_code;            // 732: the camera's code
  std::array<std::byte, 2> reserved_734;
  Shared<std::uint32_t> settings_736;  // 736: 24 bits, for the display process
  Shared<std::uint32_t> shutter_code;  // 740: the camera's code, 24 bits
  SharedText<10> shutter_text;         // 744
  Shared<std::uint8_t> ev_code;        // 754: the camera's code
  std::array<std::byte, 5> reserved_755;
  Shared<double> ev;                  // 760: exposure compensation, EV
  Shared<std::uint8_t> colour;        // 768: the camera's code
  SharedText<20> colour_text;         // 769
  Shared<std::uint8_t> settings_789;  // 789: for the display process
  Shared<std::uint8_t> settings_790;  // 790: for the display process
  Shared<std::uint8_t> settings_791;  // 791: for the display process
  Shared<std::uint8_t> status_792;    // 792: for the display process
  Shared<std::uint8_t> status_793;    // 793: for the display process
  Shared<std::uint8_t> status_794;    // 794: for the display process
  std::array<std::byte, 1> reserved_795;
  Shared<std::uint32_t> status_796;   // 796: for the display process
  Shared<std::uint32_t> status_800;   // 800: for the display process
  Shared<std::uint32_t> status_804;   // 804: for the display process
  Shared<std::uint16_t> status_808;   // 808: for the display process
  Shared<std::uint8_t> photo_format;  // 810: the camera's code
  SharedText<10> photo_format_text;   // 811
  Shared<std::uint8_t> lens_known;    // 821: 1: the lens fields below were reported
  Shared<std::uint8_t> lens_bit_0;    // 822: 0 or 1
  Shared<std::uint8_t> focus_mode;    // 823: 0, 1 or 2
  Shared<std::uint8_t> lens_bit_2;    // 824: 0 or 1
  Shared<std::uint8_t> zoom_ratio;    // 825: percent, low 8 bits
  std::array<std::byte, 6> reserved_826;
  Shared<double> zoom_value;       // 832
  Shared<double> focus_value_1;    // 840
  Shared<double> focus_value_2;    // 848
  Shared<std::uint8_t> lens_flag;  // 856: 0 or 1
  std::array<std::byte, 3> reserved_857;
  Shared<float> tracking_x;           // 860: 0.0 to 1.0
  Shared<float> tracking_y;           // 864: 0.0 to 1.0
  Shared<float> tracking_width;       // 868: 0.0 to 1.0
  Shared<float> tracking_height;      // 872: 0.0 to 1.0
  Shared<std::uint32_t> tracking_ms;  // 876: now_ms of the last tracking report, 0: none
  Shared<std::uint8_t> tracking_on;   // 880: 0 or 1
  std::array<Shared<std::uint8_t>, 64> histogram;  // 881: bins as the camera sends them
  std::array<std::byte, 67> reserved_945;
  Shared<std::uint32_t> histogram_ms;  // 1012: now_ms of the last histogram, 0: none

  // Switches.
  Shared<std::uint8_t> orientation_lock;  // 1016: 1: gimbal orientation locked
  Shared<std::uint8_t> osd_enabled;       // 1017: set at start, by viewers and by the RC switch
  Shared<std::uint8_t> internal_camera_enabled;     // 1018: set at start and by viewers
  Shared<std::uint8_t> internal_camera_fullscreen;  // 1019: set like osd_enabled
  std::array<std::byte, 12> reserved_1020;
  Shared<double> focus_point_x;  // 1032: 0.0 to 1.0
  Shared<double> focus_point_y;  // 1040: 0.0 to 1.0

  // RC receiver. The RC reader process writes here; the service writes the channel map and whether
  // the channels are shown, and clears the state when a setting ends the reader.
  std::array<std::byte, 127> reserved_1048;
  Shared<std::uint8_t> rc_status;      // 1175: receiver state; 6: values are live (kReceiverLive)
  Shared<std::uint8_t> show_channels;  // 1176: 1: the display shows the channels
  std::array<std::byte, 1> reserved_1177;
  std::array<Shared<std::uint16_t>, 32> rc_channel_values;  // 1178: raw channel values
  std::array<Shared<std::uint8_t>, 32>
      rc_channel_map;  // 1242: function code per channel, 255: none
  std::array<Shared<std::uint16_t>, 32>
      rc_function_assigned;  // 1274: by function code; non-zero: on a live channel
  std::array<std::byte, 6> reserved_1338;
  std::array<Shared<double>, 32> rc_function_centred;   // 1344: by function code, -1.0 to 1.0
  std::array<Shared<double>, 32> rc_function_position;  // 1600: by function code, 0.0 to 1.0
  Shared<std::uint8_t> menu_active;  // 1856: non-zero: the on-screen menu owns the RC input
  std::array<std::byte, 1> reserved_1857;
  CommandMailbox command_mailbox;  // 1858: one pending command text from a viewer
  std::array<std::byte, 302> reserved_2370;

  /// Sets the camera timer back to where none is known.
  void reset_timer() noexcept {
    timer_state = 0;
    timer_start_ms = 0;
    timer_elapsed_ms = 0;
  }
};

/// The name of the shared-memory object.
inline constexpr const char* kDisplayRegionName = "/hud_mem";

/// Of rc_status.
inline constexpr std::uint8_t kReceiverLive = 6;

inline constexpr std::size_t kRcChannels =
    std::tuple_size_v<decltype(DisplayRegion::rc_channel_values)>;

static_assert(offsetof(DisplayRegion, product_name) == 0);
static_assert(offsetof(DisplayRegion, version_text) == 286);
static_assert(offsetof(DisplayRegion, viewer_count) == 362);
static_assert(offsetof(DisplayRegion, data_connected) == 363);
static_assert(offsetof(DisplayRegion, video_connected) == 364);
static_assert(offsetof(DisplayRegion, telemetry_status_text) == 365);
static_assert(offsetof(DisplayRegion, video_status_text) == 493);
static_assert(offsetof(DisplayRegion, gimbal_angle_1) == 622);
static_assert(offsetof(DisplayRegion, gimbal_angle_2) == 624);
static_assert(offsetof(DisplayRegion, gimbal_angle_3) == 626);
static_assert(offsetof(DisplayRegion, gimbal_flag) == 628);
static_assert(offsetof(DisplayRegion, status_629) == 629);
static_assert(offsetof(DisplayRegion, status_630) == 630);
static_assert(offsetof(DisplayRegion, status_631) == 631);
static_assert(offsetof(DisplayRegion, recording_state) == 632);
static_assert(offsetof(DisplayRegion, recording_reset) == 633);
static_assert(offsetof(DisplayRegion, timer_state) == 634);
static_assert(offsetof(DisplayRegion, timer_start_ms) == 636);
static_assert(offsetof(DisplayRegion, timer_elapsed_ms) == 640);
static_assert(offsetof(DisplayRegion, camera_mode) == 644);
static_assert(offsetof(DisplayRegion, camera_mode_text) == 645);
static_assert(offsetof(DisplayRegion, exposure_mode) == 655);
static_assert(offsetof(DisplayRegion, exposure_mode_text) == 656);
static_assert(offsetof(DisplayRegion, resolution) == 676);
static_assert(offsetof(DisplayRegion, resolution_text) == 677);
static_assert(offsetof(DisplayRegion, resolution_width) == 688);
static_assert(offsetof(DisplayRegion, resolution_height) == 690);
static_assert(offsetof(DisplayRegion, frame_rate_code) == 692);
static_assert(offsetof(DisplayRegion, frame_rate) == 694);
static_assert(offsetof(DisplayRegion, white_balance) == 696);
static_assert(offsetof(DisplayRegion, white_balance_text) == 697);
static_assert(offsetof(DisplayRegion, colour_temperature) == 718);
static_assert(offsetof(DisplayRegion, aperture) == 720);
static_assert(offsetof(DisplayRegion, settings_728) == 728);
static_assert(offsetof(DisplayRegion, iso) == 730);
static_assert(offsetof(DisplayRegion, iso_code) == 732);
static_assert(offsetof(DisplayRegion, settings_736) == 736);
static_assert(offsetof(DisplayRegion, shutter_code) == 740);
static_assert(offsetof(DisplayRegion, shutter_text) == 744);
static_assert(offsetof(DisplayRegion, ev_code) == 754);
static_assert(offsetof(DisplayRegion, ev) == 760);
static_assert(offsetof(DisplayRegion, colour) == 768);
static_assert(offsetof(DisplayRegion, colour_text) == 769);
static_assert(offsetof(DisplayRegion, settings_789) == 789);
static_assert(offsetof(DisplayRegion, settings_790) == 790);
static_assert(offsetof(DisplayRegion, settings_791) == 791);
static_assert(offsetof(DisplayRegion, status_792) == 792);
static_assert(offsetof(DisplayRegion, status_793) == 793);
static_assert(offsetof(DisplayRegion, status_794) == 794);
static_assert(offsetof(DisplayRegion, status_796) == 796);
static_assert(offsetof(DisplayRegion, status_800) == 800);
static_assert(offsetof(DisplayRegion, status_804) == 804);
static_assert(offsetof(DisplayRegion, status_808) == 808);
static_assert(offsetof(DisplayRegion, photo_format) == 810);
static_assert(offsetof(DisplayRegion, photo_format_text) == 811);
static_assert(offsetof(DisplayRegion, lens_known) == 821);
static_assert(offsetof(DisplayRegion, lens_bit_0) == 822);
static_assert(offsetof(DisplayRegion, focus_mode) == 823);
static_assert(offsetof(DisplayRegion, lens_bit_2) == 824);
static_assert(offsetof(DisplayRegion, zoom_ratio) == 825);
static_assert(offsetof(DisplayRegion, zoom_value) == 832);
static_assert(offsetof(DisplayRegion, focus_value_1) == 840);
static_assert(offsetof(DisplayRegion, focus_value_2) == 848);
static_assert(offsetof(DisplayRegion, lens_flag) == 856);
static_assert(offsetof(DisplayRegion, tracking_x) == 860);
static_assert(offsetof(DisplayRegion, tracking_y) == 864);
static_assert(offsetof(DisplayRegion, tracking_width) == 868);
static_assert(offsetof(DisplayRegion, tracking_height) == 872);
static_assert(offsetof(DisplayRegion, tracking_ms) == 876);
static_assert(offsetof(DisplayRegion, tracking_on) == 880);
static_assert(offsetof(DisplayRegion, histogram) == 881);
static_assert(offsetof(DisplayRegion, histogram_ms) == 1012);
static_assert(offsetof(DisplayRegion, orientation_lock) == 1016);
static_assert(offsetof(DisplayRegion, osd_enabled) == 1017);
static_assert(offsetof(DisplayRegion, internal_camera_enabled) == 1018);
static_assert(offsetof(DisplayRegion, internal_camera_fullscreen) == 1019);
static_assert(offsetof(DisplayRegion, focus_point_x) == 1032);
static_assert(offsetof(DisplayRegion, focus_point_y) == 1040);
static_assert(offsetof(DisplayRegion, rc_status) == 1175);
static_assert(offsetof(DisplayRegion, show_channels) == 1176);
static_assert(offsetof(DisplayRegion, rc_channel_values) == 1178);
static_assert(offsetof(DisplayRegion, rc_channel_map) == 1242);
static_assert(offsetof(DisplayRegion, rc_function_assigned) == 1274);
static_assert(offsetof(DisplayRegion, rc_function_centred) == 1344);
static_assert(offsetof(DisplayRegion, rc_function_position) == 1600);
static_assert(offsetof(DisplayRegion, menu_active) == 1856);
static_assert(offsetof(DisplayRegion, command_mailbox) == 1858);
static_assert(sizeof(DisplayRegion) == 2672);
static_assert(std::is_trivially_default_constructible_v<DisplayRegion>);

/// Maps the object. A new region is zero-filled with mode 0600; an existing one is taken as it is,
/// neither resized nor cleared. Never unmapped nor unlinked: the region outlives the process.
/// Returns null after one line on standard error when the region cannot be had or is too short to
/// hold the layout. Main thread, once.
[[nodiscard]] DisplayRegion* map_display_region();

/// What map_display_region() returned last; null before. Any thread.
[[nodiscard]] DisplayRegion* display_region() noexcept;

}  // namespace nimbus
