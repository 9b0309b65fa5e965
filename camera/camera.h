// Everything that the service can tell the camera. Each operation first writes its line on standard
// error (camera_set_ev and camera_reset write none), then sends its frames, and returns what the
// last send returned, which callers ignore: the number of bytes, or -1; -1 also when it sends
// nothing. Words match exactly. Numbers are not range-checked: they are cut to their field. Any
// thread.
#pragma once

#include <cstdint>

namespace nimbus {

std::int32_t camera_record(int start) noexcept;  ///< non-zero: start, 0: stop
std::int32_t camera_shot() noexcept;
std::int32_t camera_set_mode(int mode) noexcept;  ///< kPhotoMode, kVideoMode; others do nothing
std::int32_t camera_reset() noexcept;
std::int32_t camera_format_card() noexcept;

/// Exposure compensation in EV. Values that are not exactly one of the camera's steps do nothing.
std::int32_t camera_set_ev(double value) noexcept;
/// ISO value; every value that the camera does not know selects the automatic.
std::int32_t camera_set_iso(int iso) noexcept;
/// A shutter text of kShutterTexts; any other sends a code of zeros.
std::int32_t camera_set_shutter(const char* text) noexcept;
/// The f-number, sent in hundredths truncated toward zero.
std::int32_t camera_set_aperture(double f_number) noexcept;
/// "auto", "shutter", "aperture" or "manual"; other modes send nothing.
std::int32_t camera_set_exposure_mode(const char* mode) noexcept;
std::int32_t camera_set_ae_lock(int lock) noexcept;  ///< 1 locks, 0 unlocks
std::int32_t camera_set_exposure_centre() noexcept;
std::int32_t camera_set_exposure_point(int point) noexcept;

/// "auto", "sunny", "cloudy", "incandescent", "neon", or "custom" with a colour temperature in
/// kelvin as text; without one, below 2000 K (but for the last hundred) and for other names it
/// sends nothing. The temperature may be null.
std::int32_t camera_set_white_balance(const char* name, const char* temperature) noexcept;
/// A colour profile of kColours; any other sends the code of "none".
std::int32_t camera_set_colour(const char* profile) noexcept;
std::int32_t camera_set_histogram(int enable) noexcept;

/// Unknown sizes and frame rates are sent as code 0.
std::int32_t camera_set_video_resolution(int width, int height, int fps) noexcept;
std::int32_t camera_set_aspect_ratio(const char* ratio) noexcept;  ///< "4:3", "16:9", else nothing
std::int32_t camera_set_anti_flicker(const char* text) noexcept;   ///< "50", "60", else off
std::int32_t camera_set_shot_mode(const char* mode) noexcept;      ///< "raw", "jpg", "jpg+raw"

std::int32_t camera_set_focus_type(const char* type) noexcept;  ///< "afc", "afs", else nothing
/// Focuses on a point of the picture, in the camera's normalised coordinates; switches to "afs"
/// first. Holds its caller for 20 ms.
std::int32_t camera_set_focus_point(float x, float y) noexcept;

}  // namespace nimbus
