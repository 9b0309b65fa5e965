// What the service tells the supervisor that started it, if that one asks to be told.
//
// The protocol is the stable one of sd_notify(3): a datagram per message. libsystemd is not linked
// for it. It would add 0.9 MiB to what the service occupies and a third to the time it takes to
// start; and it looks for the socket in the environment at each call, so that the variable would
// have to stay there, for every command that the service runs to inherit.
#pragma once

namespace nimbus {

/// Takes what the supervisor asks for out of the environment: commands that the service runs shall
/// not take themselves for supervised. Nobody has to ask; the others then do nothing. Main thread,
/// before any other thread starts.
void meet_supervisor() noexcept;

/// Says that the service does its work. Main thread.
void tell_ready() noexcept;

/// Says that the main thread still goes round, twice in the interval that the supervisor has set,
/// if it has; to be called more often than that. Main thread.
void tell_alive() noexcept;

}  // namespace nimbus
