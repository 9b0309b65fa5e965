// Rewrites the configuration file from the record.
#pragma once

namespace nimbus {

/// Replaces "/boot/tervado-nimbus.conf", whole or not at all, and makes the working copy
/// "/run/tervado.conf" from it, the boot partition being writable meanwhile. A text is written up
/// to its first line end. Returns the last shell command's status, or -1 when the card's file
/// cannot be opened, or there is none and no room for one; the working copy stays then. Commands
/// that fail and a card that is full go unnoticed; the former settings stay then. Control thread,
/// RC thread; one waits for the other.
int config_save() noexcept;

/// To be said when the record was not loaded: what the card has is not replaced before a copy of it
/// is on the card, too, as "tervado-nimbus.conf.kept", or with ".last" behind that if there is one.
/// Main thread, before any other thread runs.
void config_is_not_the_cards() noexcept;

}  // namespace nimbus
