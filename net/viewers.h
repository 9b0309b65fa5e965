// The viewer table, the viewer protocol and the relay to every viewer, on UDP port 4242.
//
// Any host may send anything here at any rate. A datagram registers a viewer, keeps it registered,
// lets it leave, carries a command or a speed, or is ignored; none is answered directly. Whatever
// is broadcast goes as one frame to each registered viewer, spaced by a millisecond.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "base/shared.h"
#include "net/messages.h"
#include "net/udp_link.h"

namespace nimbus {

inline constexpr std::size_t kMaxViewers = 10;

/// A viewer that has not registered again for longer than this is lost.
inline constexpr std::uint32_t kViewerTimeoutMs = 5000;

/// One slot of the viewer table. `address` is the slot's ownership, written before `tenancy` when
/// it fills (and both behind the rest) and last when it empties; `tenancy` is its visibility to
/// broadcasts, written last when it fills and first when it empties. No two of 65,536 tenancies in
/// a row are equal, so that whoever looked at one viewer cannot empty the slot of the next, be it
/// one with the same port.
struct ViewerClient {
  Shared<in_addr_t> address;           ///< network byte order; 0: the slot is free
  Shared<std::uint32_t> tenancy;       ///< a count, and the port in its low 16 bits; 0: not served
  Shared<std::uint32_t> last_seen_ms;  ///< now_ms of the last registration
  Shared<std::uint8_t> data_only;      ///< 1: announced as data-only, which changes nothing else

  /// The viewer in the slot, with port 0 when none is served. An address and a port of two
  /// different viewers are never paired. Any thread.
  [[nodiscard]] Endpoint viewer() const noexcept;

  /// Gives the free slot to a viewer that has just been seen. Viewer link's receive thread.
  void fill(Endpoint newcomer) noexcept;

  /// Ends that tenancy. False when it has ended already: the receive thread (leave) and the main
  /// thread (time-out) may both try, and one of them wins.
  bool release(std::uint32_t ended) noexcept;
};

/// Called with a viewer's speed message: the mode, and pan, tilt and roll as they stood on the
/// wire.
using ViewerSpeedHandler = void (*)(int mode, int pan, int tilt, int roll);

/// Opens the viewer link. The handler of speed messages may be null. Returns 0, or -1 after "fail"
/// on standard error when the port cannot be bound. Main thread, once, with the display region
/// mapped.
int open_viewers_link(ViewerSpeedHandler on_speed);

/// Sends the payload as one frame to every registered viewer, 1 ms apart. The payload is not
/// copied. A datagram holds at most 65,495 bytes of it; a longer one reaches nobody, or as what is
/// left when the frame's length is cut to 16 bits. Any thread.
void broadcast(std::span<const std::uint8_t> payload, FrameKind kind) noexcept;

/// Broadcasts a text, without a NUL. Any thread.
void broadcast_text(std::string_view text) noexcept;

/// Broadcasts a 7-byte status message: the type and six bytes. Any thread.
void send_status(ToViewer type, const std::array<std::uint8_t, 6>& values) noexcept;

/// Broadcasts a 7-byte triple message: the type and three 16-bit values, little-endian. Any thread.
void send_triple(ToViewer type, const std::array<std::int16_t, 3>& values) noexcept;

/// Acts on one datagram from a viewer, or from anybody. Viewer link's receive thread.
void handle_viewer_datagram(const Datagram& datagram) noexcept;

/// Registers a viewer or keeps it registered. Returns 1 when it is new, 0 when it is known, has no
/// address or port, or finds all slots taken. Viewer link's receive thread.
int register_viewer(Endpoint viewer, bool data_only) noexcept;

/// Drops the viewers that have fallen silent and counts the others into the display region. Main
/// thread, once a second.
void check_viewer_timeouts() noexcept;

}  // namespace nimbus
